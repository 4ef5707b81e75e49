/// @file
/// Settings of a service in an INI-style key file.
#ifndef VUTIL_KEYFILE_H_
#define VUTIL_KEYFILE_H_

#include <functional>
#include <memory>
#include <string>

#include "vutil/export.h"

namespace vutil {

struct KeyFileImpl;

/// A key file held in memory and bound to one path: read once at construction, changed through
/// typed accessors, and saved whole and durably after every change.
///
/// ~~~{.cpp}
/// vutil::KeyFile settings("/var/lib/sensor/settings.conf", 0640);
/// int port = 0;
/// if (settings.getInteger("net", "port", port, 8080)) listen_on(port);
/// settings.setBoolean("net", "tls", true);  // on disk when it returns
/// ~~~
///
/// **Format.** Lines end with a line feed (a carriage return before it is ignored). Keys stand in
/// sections; later text for a key replaces earlier text.
///
/// ~~~{.ini}
/// # A comment runs from '#' or ';' to the end of the line, wherever it begins.
/// [net]                  ; a section begins
/// port = 8080            ; white space around key and value is dropped
/// motd = Room \#4        ; a backslash makes the marker behind it ordinary text
/// ~~~
///
/// Saving writes sections and keys in byte-wise order without spaces around `=`. **Comments and
/// blank lines are not kept.** Names are case-sensitive. Names and values are bytes: any encoding
/// will do.
///
/// **What the format cannot carry** is refused by the accessors, so that a saved file always loads
/// and every name reads back: a section name that is empty or holds `]` or a line feed; a key that
/// holds
/// `=` or a line feed, begins with `[`, or begins or ends with white space; a value that holds a
/// line feed. Nothing is then stored, created or saved; the accessor writes a `<3>` line with the
/// path and the reason and returns false. (White space at the ends of a value is accepted, and
/// dropped when the file is read again.)
///
/// **Failures** are reported, not thrown: an accessor that fails leaves its output alone, writes a
/// `<3>` line on standard error and returns false. It throws only
/// - `std::system_error` if the lock cannot be taken, in particular with EDEADLK when the content
/// callback
///   calls an accessor of its own object;
/// - `std::bad_alloc` if there is no memory for the copy of a string default or value;
/// - what a content callback throws that does not derive from `std::exception`.
///
/// **Durability.** Every set, and every get that stores its default, replaces the file through
/// set_file_contents(): after a crash or power cut at any moment it holds the old or the new
/// document, whole. A `true` result says that the value is in the document; a failed save writes
/// `<3>` lines, leaves the file as it was, and is made up for by the next save that succeeds.
///
/// **Threads.** The accessors of one object may be called from any number of threads: each holds
/// the object's lock for its whole run, its save included. toString() and write() take no lock: a
/// program keeps them apart from accessors in other threads itself. Moving and destroying must not
/// overlap with any other use. Two objects, or two processes, must not save to one path at the same
/// time.
///
/// **Locale.** Numbers are written as the global C++ locale has them, and real numbers read by
/// LC_NUMERIC. A program that changes either from the classic locale writes files that others, and
/// it itself with getInteger(), may not read.
///
/// **Moved-from objects** may be destroyed and assigned to. Any other call does nothing but write a
/// `<2>` line; accessors return false, toString() an empty string.
class KeyFile {
 public:
  /// Which way the text is travelling when the content callback sees it.
  enum class Operation : int {
    Read = 0,   ///< The file's contents, before they are parsed.
    Write = 1,  ///< The serialised document, before it is saved.
  };

  /// Reads and parses the file.
  ///
  /// If there is no file, the document is empty and nothing is written to standard error.
  ///
  /// @warning If the file exists but cannot be read (no permission, an I/O error), or if `path` is
  /// empty
  ///   or too long, the document is empty as well, after the line of get_file_contents(), and **the
  ///   next save replaces the file**. A program to which that matters calls get_file_contents() on
  ///   the path first, and goes on only if that gives 0 or -ENOENT.
  ///
  /// @param path  the file to read and to save to, at most 4090 bytes. Used as it stands: if it is
  ///   relative, it is looked up anew on every save.
  /// @param mode  permission bits of the saved file as chmod(2) takes them, applied whatever the
  /// umask.
  /// @param callback  if not empty, called with the text of the file after it was read and before
  /// each
  ///   save. It may rewrite the text (to encrypt it, say): what it leaves is what is parsed or
  ///   saved. It runs in the thread of the constructor, write() or the accessor; inside an accessor
  ///   the lock is held, so it must not call the accessors of the same object. An exception that it
  ///   throws prevents the parse or save. It lives as long as the object.
  ///
  /// @throws std::logic_error  the text is malformed. Its what() tells the line, for example
  ///   `l.7: ini parsing failed, no '=' found`; a `<3>` line with the path was written. The file is
  ///   left as it is.
  /// @throws std::length_error  the file is larger than a string can be.
  /// @throws std::bad_alloc  there is not enough memory (with a `<3>` line if it ran out in
  /// parsing).
  /// @throws ...  whatever `callback` throws.
  VUTIL_EXPORT KeyFile(std::string path, unsigned int mode,
                       std::function<void(std::string&, Operation)> callback = {});

  /// Takes over the document, path and callback of `other`, which is moved-from afterwards.
  VUTIL_EXPORT KeyFile(KeyFile&& other) noexcept;

  /// Takes over the document, path and callback of `other`, which is moved-from afterwards, and
  /// destroys what this object held before. Moving an object to itself changes nothing.
  VUTIL_EXPORT KeyFile& operator=(KeyFile&& other) noexcept;

  KeyFile(const KeyFile&) = delete;
  KeyFile& operator=(const KeyFile&) = delete;

  /// Does not save: every change has been saved already.
  VUTIL_EXPORT ~KeyFile();

  /// The document as key-file text, as write() hands it to the content callback. Takes no lock.
  /// @throws std::bad_alloc  there is not enough memory.
  VUTIL_EXPORT std::string toString() const;

  /// Saves the document. Takes no lock.
  ///
  /// The accessors do this themselves; a program needs it only to try again after a failed save, or
  /// to create the file. A failed save writes the lines of set_file_contents() and a `<3>` line
  /// with the path, and leaves document and file as they were.
  ///
  /// @throws std::bad_alloc  there is not enough memory; nothing is saved.
  /// @throws ...  whatever the content callback throws; nothing is saved.
  VUTIL_EXPORT void write();

  /// @name Getters
  /// Each delivers the value of a key. A key that is absent is first created, with its section,
  /// from the default, and the document is saved: once asked for, a setting stands in the file with
  /// its default. A text that does not read as the wanted type is a failure; it is left alone, not
  /// replaced.
  ///
  /// @param section  name of the section; created if absent.
  /// @param key  name of the key; created if absent.
  /// @param[out] value  receives the value; untouched on failure.
  /// @param defaultValue  stored if the key is absent, and then read back like any other.
  /// @returns true if `value` was delivered; false after a `<3>` line.
  ///@{

  /// Any text. `value` and `defaultValue` may be the same object.
  VUTIL_EXPORT bool getString(const std::string& section, const std::string& key,
                              std::string& value, const std::string& defaultValue);

  /// A decimal number, or a hexadecimal one behind `0x`, with an optional `-`, and nothing else
  /// around it; see std::from_chars. Leading zeros do not make it octal.
  VUTIL_EXPORT bool getInteger(const std::string& section, const std::string& key, int& value,
                               int defaultValue);

  /// The number that the text begins with, as std::stod reads it, so `2.5 volts` is 2.5; the
  /// decimal point is that of LC_NUMERIC. A default is stored with six significant digits, so it
  /// comes back rounded to that.
  VUTIL_EXPORT bool getDouble(const std::string& section, const std::string& key, double& value,
                              double defaultValue);

  /// `true` or `false` in any mix of letter case, and no other word.
  VUTIL_EXPORT bool getBoolean(const std::string& section, const std::string& key, bool& value,
                               bool defaultValue);
  ///@}

  /// @name Setters
  /// Each sets the text of a key, creates the key and its section if absent, and saves the
  /// document, also when the text does not change.
  ///
  /// @param section  name of the section.
  /// @param key  name of the key.
  /// @param value  the new value.
  /// @returns true if the value is in the document, even if saving it failed (which has its own
  /// `<3>`
  ///   lines); false after a `<3>` line.
  ///@{

  /// Stores the text as it is. Do not pass secrets that must not reach a journal: the line of a
  /// failure names section, key and value.
  VUTIL_EXPORT bool setString(const std::string& section, const std::string& key,
                              const std::string& value);

  /// Stores decimal digits, with a `-` if negative.
  VUTIL_EXPORT bool setInteger(const std::string& section, const std::string& key, int value);

  /// Stores six significant digits, as printf's `%g` does: `0.1`, `1e+06`, `nan`.
  VUTIL_EXPORT bool setDouble(const std::string& section, const std::string& key, double value);

  /// Stores `true` or `false`.
  VUTIL_EXPORT bool setBoolean(const std::string& section, const std::string& key, bool value);
  ///@}

 private:
  template <typename T>
  bool getValue(const std::string& section, const std::string& key, T& value, T defaultValue);
  template <typename T>
  bool setValue(const std::string& section, const std::string& key, T value);

  std::unique_ptr<KeyFileImpl> impl_;
};

}  // namespace vutil

#endif  // VUTIL_KEYFILE_H_
