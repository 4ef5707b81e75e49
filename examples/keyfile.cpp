// Reads and changes a key file from the command line.
//
//   keyfile FILE                               prints the document
//   keyfile FILE GET SECTION KEY [DEFAULT]     prints a value; an absent key gets DEFAULT, or else
//                                              an empty text, 0 or false, and is saved if possible
//   keyfile FILE set SECTION KEY VALUE         stores a value
//   keyfile FILE load                          stores a value for each line "SECTION KEY VALUE" of
//                                              standard input, and saves the file each time; at a
//                                              line "reload" it reads the file again
//
// GET is get, get-integer, get-double or get-boolean: the type that the text must have. DEFAULT
// is then a decimal number, for the last one true or false.
// Exit status: 0; 1 on failure, with a message on standard error; 2 on wrong usage.
#include "vutil/keyfile.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <exception>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "vutil/io.h"

namespace {

enum ExitStatus : int { SUCCESS = 0, FAILURE = 1, WRONG_USAGE = 2 };

constexpr unsigned int FILE_MODE = 0640;

// A file that exists but cannot be read would give an empty document, and the next save would
// replace the file.
vutil::KeyFile read_settings(const std::string& file) {
  std::string text;
  const int result = vutil::get_file_contents(file, text);
  if (result != 0 && result != -ENOENT) {
    throw std::system_error(-result, std::generic_category());
  }
  return vutil::KeyFile(file, FILE_MODE);
}

void print(std::string_view text) {
  const int result = vutil::write_all(STDOUT_FILENO, text, nullptr);
  if (result != 0) throw std::system_error(-result, std::generic_category(), "standard output");
}

// A setter's `true` means that the value is in the document. Whether it was saved shows in the
// file.
bool set(vutil::KeyFile& settings, const std::string& file, const std::string& section,
         const std::string& key, const std::string& value) {
  if (!settings.setString(section, key, value)) return false;
  std::string text;
  if (vutil::get_file_contents(file, text) == 0 && text == settings.toString()) return true;
  throw std::runtime_error("the file does not hold the change");
}

bool load(vutil::KeyFile& settings, const std::string& file) {
  for (std::string line; std::getline(std::cin, line);) {
    std::istringstream words(line);
    std::string section;
    std::string key;
    std::string value;
    words >> section >> key >> std::ws;
    std::getline(words, value);
    if (section == "reload" && key.empty()) {
      settings = read_settings(file);  // or the next save would undo what somebody has edited
    } else if (key.empty()) {
      throw std::invalid_argument("a line without a key: " + line);
    } else if (!set(settings, file, section, key, value)) {
      return false;
    }
  }
  if (ferror(stdin) != 0) throw std::runtime_error("standard input cannot be read");
  return true;
}

template <typename T>
using Getter = bool (vutil::KeyFile::*)(const std::string&, const std::string&, T&, T);

// Prints a value of one type. The default must be of that type too.
template <typename T>
bool get(vutil::KeyFile& settings, Getter<T> getter, const std::vector<std::string>& arguments) {
  T fallback = {};
  if (arguments.size() == 5) {
    std::istringstream input(arguments[4]);
    if (!(input >> std::boolalpha >> fallback) || input.rdbuf()->in_avail() > 0) {
      throw std::invalid_argument("the default is of another type: " + arguments[4]);
    }
  }
  T value = {};
  if (!(settings.*getter)(arguments[2], arguments[3], value, fallback)) return false;
  std::ostringstream output;
  output << std::boolalpha << value << '\n';
  print(output.str());
  return true;
}

bool run(const std::vector<std::string>& arguments) {
  using vutil::KeyFile;
  const std::string& file = arguments[0];
  KeyFile settings = read_settings(file);
  if (arguments.size() == 1) {
    print(settings.toString());
    return true;
  }
  const std::string& command = arguments[1];
  if (command == "load") return load(settings, file);
  if (command == "set") return set(settings, file, arguments[2], arguments[3], arguments[4]);
  if (command == "get-integer") return get(settings, &KeyFile::getInteger, arguments);
  if (command == "get-double") return get(settings, &KeyFile::getDouble, arguments);
  if (command == "get-boolean") return get(settings, &KeyFile::getBoolean, arguments);

  const std::string fallback = arguments.size() == 5 ? arguments[4] : "";
  std::string value;
  if (!settings.getString(arguments[2], arguments[3], value, fallback)) return false;
  print(value + "\n");
  return true;
}

bool is_valid(const std::vector<std::string>& arguments) {
  const size_t count = arguments.size();
  if (count < 2) return count == 1;
  const std::string& command = arguments[1];
  if (command == "load") return count == 2;
  if (command == "set") return count == 5;
  return (count == 4 || count == 5) && (command == "get" || command == "get-integer" ||
                                        command == "get-double" || command == "get-boolean");
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    if (is_valid(arguments)) return run(arguments) ? SUCCESS : FAILURE;
    fprintf(stderr,
            "Usage: keyfile FILE\n"
            "       keyfile FILE get[-integer|-double|-boolean] SECTION KEY [DEFAULT]\n"
            "       keyfile FILE set SECTION KEY VALUE\n"
            "       keyfile FILE load\n");
    return WRONG_USAGE;
  } catch (const std::exception& error) {
    fprintf(stderr, "keyfile: %s: %s\n", argv[1], error.what());
    return FAILURE;
  }
}
