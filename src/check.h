// Argument checks that fail softly: a service on an unattended device is better served by an error
// result and a message in its journal than by an abort. A check that fails prints, for example,
//   <2>src/io.cpp:120: read_deadline: Assertion `deadline >= 0ns' failed.
// and returns from the enclosing function. It must stand on one line of the source.
#ifndef VUTIL_SRC_CHECK_H_
#define VUTIL_SRC_CHECK_H_

#include <cstdio>

#define VUTIL_QUOTE_EXPANDED(x) #x
#define VUTIL_QUOTE(x) VUTIL_QUOTE_EXPANDED(x)

// `text` arrives as a finished literal: quoted here, a condition such as `errno != EBADF` would be
// printed with its macros expanded. `...` is the result, if the function has one.
#define VUTIL_CHECK(condition, text, ...)                                                        \
  do {                                                                                           \
    if (!(condition)) {                                                                          \
      fprintf(stderr, "<2>" __FILE__ ":" VUTIL_QUOTE(__LINE__) ": %s: Assertion `%s' failed.\n", \
              __func__, text);                                                                   \
      return __VA_ARGS__;                                                                        \
    }                                                                                            \
  } while (false)

// Returns `result`, or nothing, from the enclosing function unless `condition` holds.
#define CHECK_OR_RETURN(condition, result) VUTIL_CHECK(condition, #condition, result)
#define CHECK_OR_RETURN_VOID(condition) VUTIL_CHECK(condition, #condition, )

#endif  // VUTIL_SRC_CHECK_H_
