// Reads and changes a key file from the command line.
//
//   keyfile FILE                               prints the document
//   keyfile FILE GET SECTION KEY [DEFAULT]     prints a value; an absent key is stored with DEFAULT
//   keyfile FILE set SECTION KEY VALUE         stores a value
//   keyfile FILE load                          stores a value for each line "SECTION KEY VALUE" of
//                                              standard input, and saves the file each time
//
// GET is get, get-integer, get-double or get-boolean: the type that the text must have.
// Exit status: 0; 1 on failure, with a message on standard error; 2 on wrong usage.
#include "vutil/keyfile.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <typeinfo>
#include <vector>

#include "vutil/io.h"

namespace {

enum ExitStatus : int { SUCCESS = 0, FAILURE = 1, WRONG_USAGE = 2 };

constexpr unsigned int FILE_MODE = 0640;

ExitStatus print(std::string_view text) {
  return vutil::write_all(STDOUT_FILENO, text, nullptr) == 0 ? SUCCESS : FAILURE;
}

// A setter's `true` means that the value is in the document. Whether it was saved shows in the
// file.
bool is_saved(const std::string& file, const vutil::KeyFile& settings) {
  std::string text;
  return vutil::get_file_contents(file, text) == 0 && text == settings.toString();
}

bool load(vutil::KeyFile& settings, std::istream& input) {
  for (std::string line; std::getline(input, line);) {
    std::istringstream words(line);
    std::string section;
    std::string key;
    std::string value;
    words >> section >> key >> std::ws;
    std::getline(words, value);
    if (!settings.setString(section, key, value)) return false;
  }
  return true;
}

// Gets a value of the type that the command names, as text; `argument` is the default.
bool get(vutil::KeyFile& settings, const std::string& command, const std::string& section,
         const std::string& key, const std::string& argument, std::string& value) {
  if (command == "get") return settings.getString(section, key, value, argument);
  bool is_read = false;
  std::ostringstream text;
  if (command == "get-integer") {
    int number = 0;
    const long fallback = strtol(argument.c_str(), nullptr, 0);
    is_read = settings.getInteger(section, key, number, static_cast<int>(fallback));
    text << number;
  } else if (command == "get-double") {
    double number = 0;
    is_read = settings.getDouble(section, key, number, strtod(argument.c_str(), nullptr));
    text << number;
  } else {
    bool truth = false;
    is_read = settings.getBoolean(section, key, truth, argument == "true");
    text << (truth ? "true" : "false");
  }
  value = text.str();
  return is_read;
}

ExitStatus run(const std::vector<std::string>& arguments) {
  const std::string& file = arguments[0];
  // A file that exists but cannot be read would give an empty document, and the next save would
  // replace the file.
  std::string text;
  const int result = vutil::get_file_contents(file, text);
  if (result != 0 && result != -ENOENT) return FAILURE;

  vutil::KeyFile settings(file, FILE_MODE);
  if (arguments.size() == 1) return print(settings.toString());

  const std::string& command = arguments[1];
  if (command == "load") {
    return load(settings, std::cin) && is_saved(file, settings) ? SUCCESS : FAILURE;
  }
  const std::string& section = arguments[2];
  const std::string& key = arguments[3];
  const std::string argument = arguments.size() == 5 ? arguments[4] : "";
  if (command == "set") {
    const bool is_set = settings.setString(section, key, argument);
    return is_set && is_saved(file, settings) ? SUCCESS : FAILURE;
  }
  std::string value;
  if (!get(settings, command, section, key, argument, value)) return FAILURE;
  return print(value + "\n");
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
    if (is_valid(arguments)) return run(arguments);
    fprintf(stderr,
            "Usage: keyfile FILE\n"
            "       keyfile FILE get[-integer|-double|-boolean] SECTION KEY [DEFAULT]\n"
            "       keyfile FILE set SECTION KEY VALUE\n"
            "       keyfile FILE load\n");
    return WRONG_USAGE;
  } catch (const std::exception& error) {
    // For malformed text the library has written a message. Other exceptions that derive from
    // std::logic_error come without one.
    if (typeid(error) != typeid(std::logic_error)) fprintf(stderr, "keyfile: %s\n", error.what());
    return FAILURE;
  }
}
