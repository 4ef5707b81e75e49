// Reads and changes a key file from the command line.
//
//   keyfile FILE                              prints the document
//   keyfile FILE get SECTION KEY [DEFAULT]    prints a value; an absent key is stored with DEFAULT
//   ("") keyfile FILE set SECTION KEY VALUE        stores a value
//
// Exit status: 0; 1 on failure, with a line on standard error that tells why; 2 on wrong usage.
#include "vutil/keyfile.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>
#include <string_view>
#include <typeinfo>
#include <vector>

#include "vutil/io.h"

namespace {

enum ExitStatus : int { SUCCESS = 0, FAILURE = 1, WRONG_USAGE = 2 };

constexpr unsigned int FILE_MODE = 0640;

int print(std::string_view text) {
  const int result = vutil::write_all(STDOUT_FILENO, text, nullptr);
  return result == 0 ? SUCCESS : FAILURE;
}

// A setter's `true` means that the value is in the document. Whether it reached the file shows
// there.
bool is_saved(const std::string& file, const vutil::KeyFile& settings) {
  std::string text;
  return vutil::get_file_contents(file, text) == 0 && text == settings.toString();
}

int run(const std::vector<std::string>& arguments) {
  const std::string& file = arguments[0];
  // A file that is there but cannot be read would count as empty, and the next save would replace
  // it.
  std::string text;
  const int result = vutil::get_file_contents(file, text);
  if (result != 0 && result != -ENOENT) return FAILURE;

  vutil::KeyFile settings(file, FILE_MODE);
  if (arguments.size() == 1) return print(settings.toString());

  const std::string& command = arguments[1];
  const std::string& section = arguments[2];
  const std::string& key = arguments[3];
  const std::string argument = arguments.size() == 5 ? arguments[4] : "";
  if (command == "set") {
    return settings.setString(section, key, argument) && is_saved(file, settings) ? SUCCESS
                                                                                  : FAILURE;
  }
  std::string value;
  if (!settings.getString(section, key, value, argument)) return FAILURE;
  return print(value + "\n");
}

bool is_valid(const std::vector<std::string>& arguments) {
  if (arguments.size() == 1) return true;
  if (arguments.size() < 4 || arguments.size() > 5) return false;
  return arguments[1] == "get" || (arguments[1] == "set" && arguments.size() == 5);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    if (is_valid(arguments)) return run(arguments);
    fprintf(stderr,
            "Usage: keyfile FILE\n"
            "       keyfile FILE get SECTION KEY [DEFAULT]\n"
            "       keyfile FILE set SECTION KEY VALUE\n");
    return WRONG_USAGE;
  } catch (const std::exception& error) {
    // For malformed text the library has written the line.
    if (typeid(error) != typeid(std::logic_error)) fprintf(stderr, "keyfile: %s\n", error.what());
    return FAILURE;
  }
}
