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
/// A key file in memory, bound to one path: read once when it is constructed, read and changed
/// through typed accessors, and saved whole and durably after every change.
///
/// ~~~{.cpp}
/// // The port to listen on. The first call stores the default in the file.
/// int port() {
///   vutil::KeyFile settings("/var/lib/sensor/settings.conf", 0640);
///   int number = 0;
///   if (!settings.getInteger("network", "port", number, 8080)) return -1;
///   return number;
/// }
/// ~~~
///
/// **Format.** A file has sections, a section has keys, and a key has one line of text:
///
/// ~~~{.ini}
/// # A comment runs from '#' or ';' to the end of the line, wherever it begins.
/// [network]              ; from here on, keys belong to this section
/// port = 8080            ; white space around key and value is dropped
/// motd = Room \#4        ; a backslash right before '#' or ';' makes it ordinary text
/// ~~~
///
/// - A line ends with a line feed. A carriage return before it is dropped; one alone ends no line.
/// - Names and values are bytes and case-sensitive. White space inside `[ ]` belongs to the name;
///   text after `]` is ignored. A backslash elsewhere is an ordinary character.
/// - If a section stands in the file twice, the two are merged. If a key stands in a section twice,
///   its last line counts.
/// - UTF-8 will do, without a byte order mark, and so will any encoding in which the bytes of ASCII
///   mean nothing else. (A byte order mark, or UTF-16, makes the constructor throw.)
/// - A save writes sections and keys in the order of their bytes, without white space around `=`.
///   **Comments and blank lines are not kept.**
///
/// **Refused text.** The accessors store nothing that would not read back from the file: a section
/// name that is empty or holds `]` or a line feed; a key that holds `=` or a line feed, begins with
/// `[`, or begins or ends with white space; a value that holds a line feed. (White space at the
/// ends of a value is stored, but is lost when the file is read again.) An accessor that refuses
/// text changes nothing. It writes a `<3>` message, which names the path and the reason, and
/// returns false.
///
/// **Results.** A getter's `true` means that `value` was delivered. A setter's `true` means that
/// the value is in the document, not that it was saved.
///
/// - If only the save fails, `<3>` messages say so, the file keeps its old contents, and the next
///   save that succeeds writes all changes. To learn whether a value was saved, a program without a
///   content callback compares the file with toString(), as examples/keyfile.cpp does.
/// - After `false` from a setter, and from a getter of an absent key, the document may hold the new
///   value all the same if memory ran out or the content callback threw; then the next save writes
///   it.
///
/// **Exceptions.** Accessors report what derives from `std::exception` with a `<3>` message and
/// return false. They throw only
///
/// - `std::system_error` if the lock cannot be taken;
/// - `std::bad_alloc` if there is no memory for the copy of a string default or value;
/// - what the content callback throws that does not derive from `std::exception`.
///
/// **Durability.** Every set, and every get that stores its default, saves the whole document with
/// set_file_contents() before it returns. What that function promises holds for the key file: after
/// a crash or power cut it holds the old document or the new one (except on FAT). What it does to
/// links, mount points, long names, owner and permission bits holds as well.
///
/// **Threads.** The accessors of one object may be called from any number of threads: each holds
/// the object's lock while it runs, its save included, so a slow save delays the others. toString()
/// and write() take no lock: they must not run while another thread may use the object. The same
/// goes for moving and destroying. At most one save at a time may run for one path, in all objects
/// and processes. Do not cancel a thread (pthread_cancel(3)) that may be in one of these functions.
///
/// **Locale.** Numbers are written as the global C++ locale has them, and real numbers are read by
/// LC_NUMERIC. With other than the classic locale a program may write numbers that others, and its
/// own getInteger(), cannot read.
///
/// **Moved-from objects** may be destroyed and assigned to. Any other call only writes a `<2>`
/// message: accessors return false, toString() returns an empty string.
class KeyFile {
 public:
  /// Which way the text goes when the content callback sees it.
  enum class Operation : int {
    Read = 0,   ///< The contents of the file, before they are parsed.
    Write = 1,  ///< The document as text, before it is saved.
  };

  /// Reads and parses the file with get_file_contents(). If there is no file, the document is
  /// empty.
  ///
  /// @warning A file that exists but cannot be read (no permission, an I/O error) also gives an
  ///   empty document, after the message of get_file_contents(), and **the next save replaces the
  ///   file**. To prevent that, call get_file_contents() on the path first and go on only if it
  ///   gives 0 or -ENOENT. A path that is empty or too long gives an empty document too, and no
  ///   save of it succeeds.
  ///
  /// @param path  the file to read and to save to, at most 4,090 bytes and 251 in its last name. A
  ///   directory gives an empty document or an exception, as with get_file_contents(). A relative
  ///   path is resolved against the working directory of the moment, at every save.
  /// @param mode  permission bits of the saved file as chmod(2) takes them, applied exactly,
  ///   whatever the umask.
  /// @param callback  the content callback: if not empty, it is called with the text of the file
  ///   after it was read, and with the text of the document before each save. It may change the
  ///   text, to encrypt it for example: what it leaves is parsed or saved. It runs in the calling
  ///   thread. During a save by an accessor it must not call an accessor of the same object; that
  ///   call would throw `std::system_error` with EDEADLK. If it throws, nothing is parsed or saved.
  ///   It is moved and destroyed with the object.
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

  /// Takes over the document, path and callback of `other`, which is moved-from afterwards, and
  /// destroys what this object held. To move an object to itself changes nothing.
  VUTIL_EXPORT KeyFile& operator=(KeyFile&& other) noexcept;

  KeyFile(const KeyFile&) = delete;
  KeyFile& operator=(const KeyFile&) = delete;

  /// Does not save: every change has been saved, or its failure reported.
  VUTIL_EXPORT ~KeyFile();

  /// The document as text, as write() hands it to the content callback. Takes no lock.
  ///
  /// @returns the text; empty if there are no sections.
  /// @throws std::bad_alloc  there is not enough memory.
  VUTIL_EXPORT std::string toString() const;

  /// Saves the document. Takes no lock.
  ///
  /// The accessors save by themselves. A program needs this function only to try again after a
  /// failed save, or to create the file. If the save fails, the messages of set_file_contents() and
  /// a `<3>` message with the path say so; document and file stay as they are.
  ///
  /// @throws std::bad_alloc  there is not enough memory; nothing is saved.
  /// @throws ...  what the content callback throws; nothing is saved.
  VUTIL_EXPORT void write();

  /// @name Getters
  /// Each delivers the value of a key. If the key is absent, it is first created from the default,
  /// with its section if need be, and the document is saved: once a program has asked for a
  /// setting, it stands in the file. A key that is present is only read. Text that does not read as
  /// the wanted type is a failure; it is left alone, not replaced.
  ///
  /// @param section  the name of the section.
  /// @param key  the name of the key.
  /// @param[out] value  receives the value; untouched on failure.
  /// @param defaultValue  is stored if the key is absent, and then read back like any other text.
  /// @returns true if `value` was delivered; false after a `<3>` message.
  ///@{

  /// Delivers any text. `value` and `defaultValue` may be the same object.
  VUTIL_EXPORT bool getString(const std::string& section, const std::string& key,
                              std::string& value, const std::string& defaultValue);

  /// Delivers a number from -2,147,483,648 to 2,147,483,647. See std::from_chars.
  ///
  /// The text is decimal digits after an optional `-`, or hexadecimal digits after `0x` (the `-` of
  /// a negative one stands after the `0x`), and nothing else. Leading zeros do not make it octal. A
  /// NUL byte ends the text.
  VUTIL_EXPORT bool getInteger(const std::string& section, const std::string& key, int& value,
                               int defaultValue);

  /// Delivers the number with which the text begins, as std::stod reads it: 2.5 for `2.5 volts`.
  ///
  /// A number out of the range of a normal `double`, such as `1e400` or `1e-310`, is a failure. A
  /// default is stored with six significant digits and comes back rounded to them; one as small as
  /// 1e-310 is stored, but neither this nor a later call can read it back.
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
  /// @param section  the name of the section.
  /// @param key  the name of the key.
  /// @param value  the new value.
  /// @returns true if the value is in the document, even if the save failed; false after a `<3>`
  ///   message.
  ///@{

  /// Stores the text as it is. The message of a failure may name section, key and value: store no
  /// secrets that must not reach a journal.
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
