// Key files: the text format, the document in memory, its loading and saving, and the typed
// accessors.
#include "vutil/keyfile.h"

#include <pthread.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <limits>
#include <map>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "check.h"
#include "vutil/io.h"

namespace vutil {

// The document: key to value, and section to keys, ordered byte-wise.
using KeyValueMap = std::map<std::string, std::string>;
using SectionMap = std::map<std::string, KeyValueMap>;

// What a KeyFile owns.
struct KeyFileImpl {
  KeyFileImpl(std::string file_path, std::uint32_t file_mode,
              std::function<void(std::string&, KeyFile::Operation)> content_callback);

  // Replaces the document by that of `stream`. Throws std::logic_error at the first malformed line;
  // what stands before that line is then in the document.
  void parse(std::istream& stream);

  // Appends the text of the document to `stream`.
  void serialize(std::ostream& stream) const;

  // Appends a name or value to `out`, with an escape character in front of each comment marker.
  void appendEscaped(std::string& out, const std::string& text) const;

  // Cuts the comment off a line, and takes away the escape characters in front of escaped markers.
  void stripComment(std::string& line) const;

  // The text of a key, or null if it is absent.
  const std::string* find(const std::string& section, const std::string& key) const;

  // Stores a text, unless the format cannot carry it: then nothing changes, a line tells why, and
  // the result is null. The line does not quote what was refused, which may hold line feeds: nobody
  // shall forge journal lines through a name or value.
  const std::string* store(const std::string& section, const std::string& key,
                           const std::string& text);

  SectionMap sections;
  char separator = '=';
  char escape = '\\';
  std::vector<std::string> commentMarkers = {"#", ";"};
  std::string path;
  std::uint32_t mode;
  std::mutex mutex;
  std::function<void(std::string&, KeyFile::Operation)> callback;
};

namespace {

// Space, tab, line feed, vertical tab, form feed, carriage return, in any locale. NUL is not among
// them: it is a character like any other.
bool is_white_space(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && is_white_space(text.back())) text.remove_suffix(1);
  while (!text.empty() && is_white_space(text.front())) text.remove_prefix(1);
  return text;
}

void trim(std::string& text) {
  const std::string_view kept = trimmed(text);
  const auto begin = static_cast<size_t>(kept.data() - text.data());
  text.resize(begin + kept.size());
  text.erase(0, begin);
}

// Turns a mutex that has never been locked into an error-checking one, so that a content callback
// that calls an accessor of its own object gets EDEADLK instead of waiting for itself for ever.
void make_error_checking(std::mutex& mutex) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
  pthread_mutex_init(mutex.native_handle(), &attributes);
  pthread_mutexattr_destroy(&attributes);
}

[[noreturn]] void fail_parsing(std::int64_t line_number, const std::string& reason) {
  throw std::logic_error("l." + std::to_string(line_number) + ": ini parsing failed, " + reason);
}

// Why the format cannot carry a text under these names, or null if it can.
const char* reason_to_refuse(const std::string& section, const std::string& key,
                             const std::string& text) {
  if (section.empty()) return "the section name is empty";
  if (section.find_first_of("]\n") != std::string::npos) {
    return "the section name holds ']' or a line feed";
  }
  if (key.find_first_of("=\n") != std::string::npos) return "the key holds '=' or a line feed";
  if (!key.empty() && key.front() == '[') return "the key begins with '['";
  if (!key.empty() && (is_white_space(key.front()) || is_white_space(key.back()))) {
    return "the key begins or ends with white space";
  }
  if (text.find('\n') != std::string::npos) return "the value holds a line feed";
  return nullptr;
}

}  // namespace

KeyFileImpl::KeyFileImpl(std::string file_path, std::uint32_t file_mode,
                         std::function<void(std::string&, KeyFile::Operation)> content_callback)
    : path(std::move(file_path)), mode(file_mode), callback(std::move(content_callback)) {
  make_error_checking(mutex);
}

void KeyFileImpl::parse(std::istream& stream) {
  sections.clear();
  KeyValueMap* current = nullptr;
  std::string line;
  for (std::int64_t line_number = 1; stream.good(); ++line_number) {
    std::getline(stream, line);
    stripComment(line);
    trim(line);
    if (line.empty()) continue;
    if (line.front() == '[') {
      const size_t end = line.find(']');
      if (end == std::string::npos) fail_parsing(line_number, "section not closed");
      if (end == 1) fail_parsing(line_number, "section is empty");
      current = &sections.try_emplace(sections.end(), line.substr(1, end - 1))->second;
      continue;
    }
    if (current == nullptr) fail_parsing(line_number, "field has no section");
    const size_t end = line.find(separator);
    if (end == std::string::npos) {
      fail_parsing(line_number, std::string("no '") + separator + "' found");
    }
    // The hint makes a file in byte order, as every saved one is, linear to read.
    const std::string_view view = line;
    current->insert_or_assign(current->end(), std::string(trimmed(view.substr(0, end))),
                              trimmed(view.substr(end + 1)));
  }
}

// Whole sections go to the stream: character by character its overhead would rule.
void KeyFileImpl::serialize(std::ostream& stream) const {
  std::string text;
  for (const auto& [section, keys] : sections) {
    text = '[';
    appendEscaped(text, section);
    text += "]\n";
    for (const auto& [key, value] : keys) {
      appendEscaped(text, key);
      text += separator;
      appendEscaped(text, value);
      text += '\n';
    }
    stream.write(text.data(), static_cast<std::streamsize>(text.size()));
  }
}

void KeyFileImpl::appendEscaped(std::string& out, const std::string& text) const {
  const auto occurs = [&](const std::string& marker) {
    return text.find(marker) != std::string::npos;
  };
  if (std::none_of(commentMarkers.begin(), commentMarkers.end(), occurs)) {
    out += text;
    return;
  }
  for (size_t at = 0; at < text.size();) {
    const auto stands_here = [&](const std::string& marker) {
      return text.compare(at, marker.size(), marker) == 0;
    };
    const auto marker = std::find_if(commentMarkers.begin(), commentMarkers.end(), stands_here);
    if (marker == commentMarkers.end()) {
      out += text[at++];
      continue;
    }
    out += escape;
    out += *marker;
    at += marker->size();
  }
}

// What was unescaped is collected apart and put in front of the rest at once: taken out one by one,
// the escape characters of a long line would cost the square of their number.
void KeyFileImpl::stripComment(std::string& line) const {
  std::string unescaped;
  for (const std::string& marker : commentMarkers) {
    unescaped.clear();
    size_t done = 0;
    size_t at = line.find(marker);
    while (at != std::string::npos && at > 0 && line[at - 1] == escape) {
      unescaped.append(line, done, at - 1 - done) += marker;
      done = at + marker.size();
      at = line.find(marker, done);
    }
    if (at != std::string::npos) line.resize(at);
    if (done > 0) line.replace(0, done, unescaped);
  }
}

const std::string* KeyFileImpl::find(const std::string& section, const std::string& key) const {
  const auto keys = sections.find(section);
  if (keys == sections.end()) return nullptr;
  const auto entry = keys->second.find(key);
  return entry == keys->second.end() ? nullptr : &entry->second;
}

const std::string* KeyFileImpl::store(const std::string& section, const std::string& key,
                                      const std::string& text) {
  if (const char* const reason = reason_to_refuse(section, key, text)) {
    fprintf(stderr, "<3>Refused to store in '%s': %s\n", path.c_str(), reason);
    return nullptr;
  }
  return &(sections[section][key] = text);
}

KeyFile::KeyFile(std::string path, unsigned int mode,
                 std::function<void(std::string&, Operation)> callback)
    : impl_(std::make_unique<KeyFileImpl>(std::move(path), mode, std::move(callback))) {
  std::string contents;
  if (get_file_contents(impl_->path, contents) != 0) return;
  if (impl_->callback) impl_->callback(contents, Operation::Read);
  try {
    std::istringstream stream(std::move(contents));
    stream.exceptions(std::ios::badbit);  // see to_text
    impl_->parse(stream);
  } catch (const std::exception& error) {
    fprintf(stderr, "<3>Failed to read keyfile at %s: %s\n", impl_->path.c_str(), error.what());
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
  if (result < 0) {
    fprintf(stderr, "<3>Failed to save key file to '%s': %s\n", impl_->path.c_str(),
            strerror(-result));
  }
}

namespace {

// The text forms of the value types, and their readings.

const std::string& to_text(const std::string& value) { return value; }

std::string to_text(bool value) { return value ? "true" : "false"; }

// A stream swallows std::bad_alloc and goes on with its badbit set, and what it holds then is cut:
// here and wherever a text is made or read, the stream is told to let the exception through.
template <typename Number>
std::string to_text(Number value) {
  std::ostringstream stream;
  stream.exceptions(std::ios::badbit);
  stream << value;
  return std::move(stream).str();
}

void from_text(const std::string& text, std::string& value) { value = text; }

bool parseInteger(const std::string& text, int& value) {
  const bool hexadecimal = text.size() >= 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  const char* const begin = text.c_str() + (hexadecimal ? 2 : 0);
  int number = 0;
  const auto [end, error] =
      std::from_chars(begin, text.c_str() + text.size(), number, hexadecimal ? 16 : 10);
  if (error != std::errc() || *end != '\0') return false;
  value = number;
  return true;
}

void from_text(const std::string& text, int& value) {
  if (!parseInteger(text, value)) throw std::invalid_argument("field is not an int");
}

void from_text(const std::string& text, double& value) { value = std::stod(text); }

bool parseBoolean(const std::string& text, bool& value) {
  const auto is = [&](std::string_view word) {
    return std::equal(text.begin(), text.end(), word.begin(), word.end(), [](char c, char upper) {
      return toupper(static_cast<unsigned char>(c)) == upper;
    });
  };
  const bool is_true = is("TRUE");
  if (!is_true && !is("FALSE")) return false;
  value = is_true;
  return true;
}

void from_text(const std::string& text, bool& value) {
  if (!parseBoolean(text, value)) throw std::invalid_argument("field is not a bool");
}

template <typename T>
void report_failed_set(const std::string& section, const std::string& key, const T& value,
                       const std::exception& error) {
  try {
    std::ostringstream description;
    description.exceptions(std::ios::badbit);
    description << section << "::" << key << "=" << value;
    fprintf(stderr, "<3>Failed to set %s: %s\n", std::move(description).str().c_str(),
            error.what());
  } catch (const std::exception&) {
    // Not even the memory for a description is left: the same line without one.
    if constexpr (std::is_same_v<T, std::string>) {
      fprintf(stderr, "<3>Failed to set %s::%s=%s: %s\n", section.c_str(), key.c_str(),
              value.c_str(), error.what());
    } else {
      // %g writes what a stream does if it may have as many digits.
      constexpr int digits = std::is_same_v<T, double> ? 6 : std::numeric_limits<int>::digits10 + 1;
      fprintf(stderr, "<3>Failed to set %s::%s=%.*g: %s\n", section.c_str(), key.c_str(), digits,
              static_cast<double>(value), error.what());
    }
  }
}

}  // namespace

template <typename T>
bool KeyFile::getValue(const std::string& section, const std::string& key, T& value,
                       T defaultValue) {
  CHECK_OR_RETURN(impl_ != nullptr, false);
  const std::lock_guard<std::mutex> lock(impl_->mutex);
  try {
    const std::string* text = impl_->find(section, key);
    if (text == nullptr) {
      text = impl_->store(section, key, to_text(defaultValue));
      if (text == nullptr) return false;
      write();
    }
    from_text(*text, value);
    return true;
  } catch (const std::exception& error) {
    fprintf(stderr, "<3>Failed to get %s::%s : %s\n", section.c_str(), key.c_str(), error.what());
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
