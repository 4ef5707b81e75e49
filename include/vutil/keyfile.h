/// @defgroup keyfile vutil/keyfile.h
/// Settings of a service in an INI-style key file.
#ifndef VUTIL_KEYFILE_H_
#define VUTIL_KEYFILE_H_

#include <functional>
#include <memory>
#include <string>

#include "vutil/export.h"

namespace vutil {

struct KeyFileImpl;

/// @ingroup keyfile
/// A key file bound to one path: read once when the object is constructed, read and changed through
/// typed accessors, and saved whole and durably after every change.
///
/// ~~~{.cpp}
/// // Reads the settings, or reads them again after somebody has edited the file. By itself, a
/// // KeyFile treats a file that it cannot read as empty, and its next save replaces it.
/// vutil::KeyFile read_settings() {
///   const std::string path = "/var/lib/sensor/settings.conf";
///   std::string text;
///   const int result = vutil::get_file_contents(path, text);
///   if (result == 0 || result == -ENOENT) return vutil::KeyFile(path, 0640);
///   throw std::system_error(-result, std::generic_category(), path);
/// }
///
/// // The port to listen on. The first call stores the default in the file.
/// int port(vutil::KeyFile& settings) {
///   int number = 0;
///   return settings.getInteger("network", "port", number, 8080) ? number : -1;
/// }
/// ~~~
///
/// **Words.** The *document* is what the object holds in memory: sections, in a section keys, and
/// for each key a text, which is its value. The *accessors* are the getters and setters. A *save*
/// writes the document to the path. *White space* is space, tab, line feed, vertical tab, form feed
/// and carriage return. What io.h says of messages, signals, paths and cancellation holds here too.
///
/// **Format.** [The format of key files](docs/format.md) describes it. A comment runs from `#` or
/// `;` to the end of the line, unless a backslash stands right before it. A save writes sections
/// and keys in the order of their bytes. **Comments and blank lines are not kept.**
///
/// **Refused text.** An accessor refuses to store a section name that is empty or holds `]`, a key
/// that holds `=`, begins with `[`, or begins or ends with white space, and a line feed anywhere:
/// it changes nothing, writes a `<3>` message with the path and the reason, and returns false.
/// White space at the ends of a value is stored, but is lost when the file is read again.
///
/// **Saving.** Every setter saves, and so does every getter of an absent key, with
/// set_file_contents(): what that function says of crashes, FAT, rights, links, owners and names
/// holds here too. If set_file_contents() fails, `<3>` messages say so, the accessor still returns
/// true, the file keeps its old contents, and the next save that succeeds writes all changes. To
/// learn whether a setter has saved, a program without a content callback (see the constructor)
/// compares the file with toString(), as examples/keyfile.cpp does; with one, only the messages
/// tell.
///
/// **What it cannot do:** store several values in one save, look for a key without storing a
/// default, list or remove keys. A program without a content callback can read the text that
/// toString() gives, or change it, save it with set_file_contents(), and if that succeeds,
/// construct the object anew.
///
/// **One object for a path.** An object never sees what others write to the file (another object,
/// another process, an editor): its next save overwrites that. So let one object own the file.
/// After an edit, and before the next save, construct it anew: `settings = read_settings()`. If
/// that throws, `settings` keeps its old document, and its next save overwrites the edit. Programs
/// that share a file take an exclusive lock (flock(2), on another file), then construct an object,
/// and release the lock after its last use. To construct an object is safe while others save; to
/// use its getters is not, as they may save. A child after fork(2) must not use an object of its
/// parent.
///
/// **Exceptions.** Accessors throw `std::system_error` if the object's lock cannot be taken,
/// `std::bad_alloc` if there is no memory to copy a string default or value, and what the content
/// callback throws that does not derive from `std::exception`. For every other exception they write
/// a `<3>` message and return false. If memory ran out, the content callback threw, or a default
/// does not read back, the document may hold the new value all the same, and the next save writes
/// it.
///
/// **Threads.** The accessors of one object may be called from any number of threads: each holds
/// the object's lock while it runs, its save included. All other members take no lock: they must
/// not run while another thread may use the object.
///
/// **Locale.** Numbers are written by the global C++ locale, and real numbers are read by
/// LC_NUMERIC. Unless both are the classic locale, a number may be read back as another one, or not
/// at all.
///
/// **Moved-from objects** may only be destroyed, assigned to and moved from. Any other call writes
/// a `<2>` message and returns false, an empty string, or nothing.
class KeyFile {
 public:
  /// Which way the text goes when the content callback sees it.
  enum class Operation : int {
    Read = 0,   ///< The contents of the file, before they are parsed.
    Write = 1,  ///< The document as text, before it is saved.
  };

  /// Reads and parses the file with get_file_contents(). If that gives -ENOENT, the document is
  /// empty, without a message.
  ///
  /// @warning A regular file that exists but cannot be read (no permission, an I/O error) also
  ///   gives an empty document, after the message of get_file_contents(), and **the next save
  ///   replaces the file**. To prevent that, unless an error comes only in between, call
  ///   get_file_contents() first, as read_settings() does above.
  ///
  /// @param path  the file to read and to save to. A relative path is resolved against the working
  ///   directory of the moment, at every save. A path that set_file_contents() does not accept
  ///   cannot be saved.
  /// @param mode  permission bits of the saved file as chmod(2) takes them, whatever the umask.
  /// @param callback  the content callback: if not empty, it is called with the text of the file
  ///   after it was read, and with the text of the document before each save. It may change the
  ///   text, to encrypt it for example: what it leaves is parsed or saved. If it throws, nothing is
  ///   parsed or saved. It runs in the calling thread, and is moved and destroyed with the object.
  ///   During a save it may call toString() of the object, and no other member.
  ///
  /// @throws std::logic_error  the text is malformed. The file stays as it is. A `<3>` message
  ///   names the path, and what() the line: `l.7: ini parsing failed, no '=' found`.
  /// @throws std::length_error  the file is larger than a string can be. It derives from
  ///   `std::logic_error`: a program that must tell the two apart catches it first. (Without a
  ///   message.)
  /// @throws std::bad_alloc  there is not enough memory (with a `<3>` message only while parsing).
  /// @throws ...  what `callback` throws (without a message).
  VUTIL_EXPORT KeyFile(std::string path, unsigned int mode,
                       std::function<void(std::string&, Operation)> callback = {});

  /// Takes over the document, path and callback of `other`, which is moved-from afterwards.
  VUTIL_EXPORT KeyFile(KeyFile&& other) noexcept;

  /// Takes over `other` in the same way, and destroys what this object held. To move an object to
  /// itself changes nothing.
  VUTIL_EXPORT KeyFile& operator=(KeyFile&& other) noexcept;

  KeyFile(const KeyFile&) = delete;
  KeyFile& operator=(const KeyFile&) = delete;

  /// Does not save.
  VUTIL_EXPORT ~KeyFile();

  /// The document as text, as write() hands it to the content callback; empty if there are no
  /// sections.
  ///
  /// @throws std::bad_alloc  there is not enough memory.
  VUTIL_EXPORT std::string toString() const;

  /// Saves the document, for example to try again after a failed save, or to create the file.
  ///
  /// If the save fails, the messages of set_file_contents() and a `<3>` message with the path say
  /// so; document and file stay as they are.
  ///
  /// @throws std::bad_alloc  there is not enough memory; nothing is saved.
  /// @throws ...  what the content callback throws; nothing is saved.
  VUTIL_EXPORT void write();

  /// @name Getters
  /// Each delivers the value of a key. If the key is absent, it is first created from the default,
  /// with its section if need be, and the document is saved. A key that is present is only read.
  /// Text that does not read as the wanted type is a failure; it is left alone, not replaced.
  ///
  /// @param[out] value  receives the value; untouched on failure.
  /// @param defaultValue  is stored if the key is absent, and then read back like any other text.
  /// @returns true if `value` was delivered; false after a message.
  ///@{

  /// Delivers any text. `value` and `defaultValue` may be the same object.
  VUTIL_EXPORT bool getString(const std::string& section, const std::string& key,
                              std::string& value, const std::string& defaultValue);

  /// Delivers a number from -2,147,483,648 to 2,147,483,647. See std::from_chars.
  ///
  /// The text is decimal digits after an optional `-`, or hexadecimal digits after `0x` or `0X`
  /// (the `-` of a negative one stands after that), and nothing else. Leading zeros do not make it
  /// octal. A NUL byte ends the text.
  VUTIL_EXPORT bool getInteger(const std::string& section, const std::string& key, int& value,
                               int defaultValue);

  /// Delivers the number with which the text begins, as std::stod reads it: 2.5 for `2.5 volts`.
  ///
  /// A number that strtod(3) finds too large or too small, such as `1e400` or `1e-310`, is a
  /// failure. A default is stored with six significant digits and comes back rounded to them. One
  /// that is then too small, such as DBL_MIN, is stored, but cannot be read back.
  VUTIL_EXPORT bool getDouble(const std::string& section, const std::string& key, double& value,
                              double defaultValue);

  /// Delivers true or false. The text is `true` or `false` in upper or lower case or a mixture, and
  /// nothing else.
  VUTIL_EXPORT bool getBoolean(const std::string& section, const std::string& key, bool& value,
                               bool defaultValue);
  ///@}

  /// @name Setters
  /// Each stores the text of a value, creates the key and its section if absent, and saves the
  /// document, also if the text was the same before.
  ///
  /// @returns true if the value was stored in the document; false after a message, which may hold
  ///   section, key and value: store no secrets that must not reach a journal.
  ///@{

  /// Stores the text as it is.
  VUTIL_EXPORT bool setString(const std::string& section, const std::string& key,
                              const std::string& value);

  /// Stores decimal digits, after a `-` if the value is negative.
  VUTIL_EXPORT bool setInteger(const std::string& section, const std::string& key, int value);

  /// Stores six significant digits, in the default form of output streams: `0.1`, `1e+06`, `nan`.
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
