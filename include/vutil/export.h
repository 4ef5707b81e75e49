/// @file
/// The mark of what the shared library exports; everything else in it is hidden.
#ifndef VUTIL_EXPORT_H_
#define VUTIL_EXPORT_H_

/// Stands before each function and member that programs may link to.
#define VUTIL_EXPORT __attribute__((visibility("default")))

#endif  // VUTIL_EXPORT_H_
