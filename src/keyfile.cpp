// Key files: the text format, the document, its loading and saving, and the typed accessors.
#include "vutil/keyfile.h"

#include <pthread.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <map>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "check.h"
#include "key_value_map.h"
#include "vutil/io.h"

namespace vutil {

// The document: sections, which are few, in byte-wise order, as their keys are.
using SectionMap = std::map<std::string, KeyValueMap>;

// What a KeyFile owns.
struct KeyFileImpl {
  // A content callback that calls an accessor of its own object gets EDEADLK, and does not hang.
  // (In libstdc++ a std::mutex is glibc's, and by itself begins with such an initialiser, too.)
  KeyFileImpl() { *mutex.native_handle() = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP; }

  // Replaces the document by that of `stream`. Throws std::logic_error at the first malformed line;
  // what stands before that line is then in the document.
  void parse(std::istream& stream);
  void serialize(std::ostream& stream) const;

  // Appends a name or line to `out`, with an escape character in front of each comment marker.
  void appendEscaped(std::string& out, std::string_view text) const;

  // Removes the comment of a line, and the escape characters in front of escaped markers.
  void stripComment(std::string& line) const;

  // Stores a text. If the format cannot carry it, a message says why, and the result is null. The
  // message quotes no name and no value: one with a line feed could forge a message of its own.
  const KeyValueMap::Entry* store(const std::string& section, const std::string& key,
                                  const std::string& text);

  SectionMap sections;
  char separator = '=';
  char escape = '\\';
  std::vector<std::string> commentMarkers = {"#", ";"};
  std::string path;
  std::uint32_t mode = 0;
  std::mutex mutex;
  std::function<void(std::string&, KeyFile::Operation)> callback;
};

namespace {

// The same in any locale. NUL is not among them: it is a character like any other.
bool is_white_space(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && is_white_space(text.back())) text.remove_suffix(1);
  while (!text.empty() && is_white_space(text.front())) text.remove_prefix(1);
  return text;
}

void trim(std::string& text) {
  const std::string_view kept = trimmed(text);
  if (kept.size() < text.size()) text = kept;
}

// Why the format cannot carry a text under these names, or null if it can.
const char* reason_to_refuse(const std::string& section, const std::string& key,
                             const std::string& text) {
  if (section.empty()) return "the section name is empty";
  if (section.find_first_of("]\n") != std::string::npos) {
    return "the section name holds ']' or a line feed";
  }
  if (key.find_first_of("=\n") != std::string::npos) return "the key holds '=' or a line feed";
  if (key.starts_with('[')) return "the key begins with '['";
  if (trimmed(key).size() != key.size()) return "the key begins or ends with white space";
  if (text.find('\n') != std::string::npos) return "the value holds a line feed";
  return nullptr;
}

}  // namespace

void KeyFileImpl::parse(std::istream& stream) {
  sections.clear();
  KeyValueMap* section = nullptr;
  KeyValueMap keys;  // of the section, if it had none before
  std::int64_t line_number = 0;
  std::string line, reason;
  while (reason.empty() && std::getline(stream, line, '\n')) {
    stripComment(line);
    trim(line);
    ++line_number;
    if (line.empty()) continue;
    const bool is_header = line.front() == '[';
    const size_t end = line.find(is_header ? ']' : separator);
    if (is_header && end == std::string::npos) {
      reason = "section not closed";
    } else if (is_header && end == 1) {
      reason = "section is empty";
    } else if (is_header) {
      if (section != nullptr && section->empty()) section->take(keys);
      // The hint makes a file in byte-wise order, as every saved one is, linear to read.
      section = &sections.try_emplace(sections.end(), line.substr(1, end - 1))->second;
    } else if (section == nullptr) {
      reason = "field has no section";
    } else if (end == std::string::npos) {
      reason = std::string("no '") + separator + "' found";
    } else {
      const size_t key_size = trimmed({line.data(), end}).size();
      const size_t text_at = line.size() - trimmed(std::string_view(line).substr(end + 1)).size();
      if (text_at > key_size + 1) line.replace(key_size, text_at - key_size, 1, separator);
      (section->empty() ? keys : *section).append(line, key_size);
    }
  }
  if (section != nullptr && section->empty()) section->take(keys);
  for (auto& [name, taken] : sections) taken.sort();
  if (reason.empty()) return;
  throw std::logic_error("l." + std::to_string(line_number) + ": ini parsing failed, " + reason);
}

// Whole sections go to the stream: character by character would take ten times as long.
void KeyFileImpl::serialize(std::ostream& stream) const {
  std::string text;
  for (const auto& [section, keys] : sections) {
    text = '[';
    appendEscaped(text, section);
    text += "]\n";
    for (const KeyValueMap::Entry& entry : keys) {
      appendEscaped(text, entry.line);
      text += '\n';
    }
    stream.write(text.data(), static_cast<std::streamsize>(text.size()));
  }
}

void KeyFileImpl::appendEscaped(std::string& out, std::string_view text) const {
  const auto occurs = [&](const auto& marker) { return text.find(marker) != std::string::npos; };
  if (std::ranges::none_of(commentMarkers, occurs)) {
    out += text;
    return;
  }
  while (!text.empty()) {
    const auto stands_here = [&](const auto& marker) { return text.starts_with(marker); };
    const auto marker = std::ranges::find_if(commentMarkers, stands_here);
    const size_t length = marker == commentMarkers.end() ? 1 : marker->size();
    if (marker != commentMarkers.end()) out += escape;
    out += text.substr(0, length);
    text.remove_prefix(length);
  }
}

// What was unescaped is collected apart and put in front of the rest at once: to erase the escape
// characters of a long line one by one would take time by the square of their number.
void KeyFileImpl::stripComment(std::string& line) const {
  for (const std::string& marker : commentMarkers) {
    std::string unescaped;
    size_t at = 0, done = 0;
    while ((at = line.find(marker, done)) != std::string::npos && at > 0 &&
           line[at - 1] == escape) {
      unescaped.append(line, done, at - 1 - done) += marker;
      done = at + marker.size();
    }
    if (at != std::string::npos) line.resize(at);
    if (done > 0) line.replace(0, done, unescaped);
  }
}

const KeyValueMap::Entry* KeyFileImpl::store(const std::string& section, const std::string& key,
                                             const std::string& text) {
  if (const char* const reason = reason_to_refuse(section, key, text)) {
    print_message("<3>Refused to store in '%s': %s\n", path.c_str(), reason);
    return nullptr;
  }
  const std::string line = key + separator + text;
  const auto found = sections.find(section);
  if (found != sections.end()) return found->second.store(line, key.size());
  KeyValueMap keys;
  const auto* const stored = keys.store(line, key.size());  // it stays where it is
  sections.emplace(section, std::move(keys));
  return stored;
}

KeyFile::KeyFile(std::string path, unsigned int mode,
                 std::function<void(std::string&, Operation)> callback)
    : impl_(std::make_unique<KeyFileImpl>()) {
  impl_->path = std::move(path);
  impl_->mode = mode;
  impl_->callback = std::move(callback);

  std::string contents;
  if (get_file_contents(impl_->path, contents) != 0) return;
  if (impl_->callback) impl_->callback(contents, Operation::Read);
  try {
    std::istringstream stream(std::move(contents));
    stream.exceptions(std::ios::badbit);  // see to_text
    impl_->parse(stream);
  } catch (const std::exception& error) {
    print_message("<3>Failed to read keyfile at %s: %s\n", impl_->path.c_str(), error.what());
    throw;
  }
}

KeyFile::KeyFile(KeyFile&& other) noexcept = default;
KeyFile& KeyFile::operator=(KeyFile&& other) noexcept = default;
KeyFile::~KeyFile() = default;

std::string KeyFile::toString() const {
  CHECK_OR_RETURN(impl_ != nullptr, std::string());
  std::ostringstream stream;
  stream.exceptions(std::ios::badbit);  // see to_text
  impl_->serialize(stream);
  return std::move(stream).str();
}

void KeyFile::write() {
  CHECK_OR_RETURN_VOID(impl_ != nullptr);
  std::string text = toString();
  if (impl_->callback) impl_->callback(text, Operation::Write);
  const int result = set_file_contents(impl_->path, text, impl_->mode);
  if (result == 0) return;
  print_message("<3>Failed to save key file to '%s': %s\n", impl_->path.c_str(), strerror(-result));
}

namespace {

const std::string& to_text(const std::string& value) { return value; }
std::string to_text(bool value) { return value ? "true" : "false"; }

// A stream swallows std::bad_alloc, sets its badbit and goes on with an incomplete text. So it is
// told, here and wherever a text is made or read, to let the exception through.
template <typename Number>
std::string to_text(Number value) {
  std::ostringstream stream;
  stream.exceptions(std::ios::badbit);
  stream << value;
  return std::move(stream).str();
}

void from_text(std::string_view text, std::string& value) { value = text; }
void from_text(std::string_view text, double& value) { value = std::stod(std::string(text)); }

bool parseInteger(std::string_view text, int& value) {
  const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
  if (hexadecimal) text.remove_prefix(2);
  const char* const last = text.data() + text.size();
  int number = 0;
  const auto [end, error] = std::from_chars(text.data(), last, number, hexadecimal ? 16 : 10);
  if (error != std::errc() || (end != last && *end != '\0')) return false;
  value = number;
  return true;
}

void from_text(std::string_view text, int& value) {
  if (!parseInteger(text, value)) throw std::invalid_argument("field is not an int");
}

bool parseBoolean(std::string_view text, bool& value) {
  const auto is = [&](std::string_view word) {
    return std::ranges::equal(text, word, {}, [](unsigned char c) { return toupper(c); });
  };
  const bool is_true = is("TRUE");
  if (!is_true && !is("FALSE")) return false;
  value = is_true;
  return true;
}

void from_text(std::string_view text, bool& value) {
  if (!parseBoolean(text, value)) throw std::invalid_argument("field is not a bool");
}

// A value for the message of a failed set when no memory is left: its own text, or a number, of so
// few characters that a std::string holds them without an allocation.
const std::string& without_memory(const std::string& value) { return value; }
std::string without_memory(int value) { return std::to_string(value); }
std::string without_memory(double value) {
  char text[16];
  snprintf(text, sizeof(text), "%g", value);
  return text;
}

template <typename T>
void report_failed_set(const std::string& section, const std::string& key, const T& value,
                       const std::exception& error) {
  try {
    std::ostringstream description;
    description.exceptions(std::ios::badbit);
    description << section << "::" << key << "=" << value;
    print_message("<3>Failed to set %s: %s\n", std::move(description).str().c_str(), error.what());
  } catch (const std::exception&) {
    print_message("<3>Failed to set %s::%s=%s: %s\n", section.c_str(), key.c_str(),
                  without_memory(value).c_str(), error.what());
  }
}

}  // namespace

template <typename T>
bool KeyFile::getValue(const std::string& section, const std::string& key, T& value,
                       T defaultValue) {
  CHECK_OR_RETURN(impl_ != nullptr, false);
  const std::lock_guard<std::mutex> lock(impl_->mutex);
  try {
    const auto keys = impl_->sections.find(section);
    const auto* entry = keys == impl_->sections.end() ? nullptr : keys->second.find(key);
    if (entry == nullptr) {
      entry = impl_->store(section, key, to_text(defaultValue));
      if (entry == nullptr) return false;
      write();
    }
    from_text(entry->text(), value);
    return true;
  } catch (const std::exception& error) {
    print_message("<3>Failed to get %s::%s : %s\n", section.c_str(), key.c_str(), error.what());
    return false;
  }
}

template <typename T>
bool KeyFile::setValue(const std::string& section, const std::string& key, T value) {
  CHECK_OR_RETURN(impl_ != nullptr, false);
  const std::lock_guard<std::mutex> lock(impl_->mutex);
  try {
    if (impl_->store(section, key, to_text(value)) == nullptr) return false;
    write();
    return true;
  } catch (const std::exception& error) {
    report_failed_set(section, key, value, error);
    return false;
  }
}

bool KeyFile::getString(const std::string& section, const std::string& key, std::string& value,
                        const std::string& defaultValue) {
  return getValue<std::string>(section, key, value, defaultValue);
}

bool KeyFile::setString(const std::string& section, const std::string& key,
                        const std::string& value) {
  return setValue<std::string>(section, key, value);
}

bool KeyFile::getInteger(const std::string& section, const std::string& key, int& value,
                         int defaultValue) {
  return getValue<int>(section, key, value, defaultValue);
}

bool KeyFile::setInteger(const std::string& section, const std::string& key, int value) {
  return setValue<int>(section, key, value);
}

bool KeyFile::getDouble(const std::string& section, const std::string& key, double& value,
                        double defaultValue) {
  return getValue<double>(section, key, value, defaultValue);
}

bool KeyFile::setDouble(const std::string& section, const std::string& key, double value) {
  return setValue<double>(section, key, value);
}

bool KeyFile::getBoolean(const std::string& section, const std::string& key, bool& value,
                         bool defaultValue) {
  return getValue<bool>(section, key, value, defaultValue);
}

bool KeyFile::setBoolean(const std::string& section, const std::string& key, bool value) {
  return setValue<bool>(section, key, value);
}

}  // namespace vutil
