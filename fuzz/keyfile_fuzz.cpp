// Arbitrary bytes as a key file, then arbitrary changes. The last byte of the input says how many
// changes stand before the file: a file that ends in a line feed is an input without any.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdlib>
#include <exception>
#include <map>
#include <stdexcept>
#include <string>
#include <tuple>
#include <typeinfo>
#include <utility>
#include <vector>

#include "vutil/io.h"
#include "vutil/keyfile.h"

static void require(bool holds) { holds ? void() : abort(); }

static std::string trimmed(std::string text) {
  text.erase(0, text.find_first_not_of(" \t\n\r\f\v"));
  return text.erase(text.find_last_not_of(" \t\n\r\f\v") + 1);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string path = "fuzzed.conf";
  FuzzedDataProvider input(data, size);
  std::vector<std::tuple<std::string, std::string, std::string>> changes(
      input.ConsumeIntegralInRange<size_t>(0, 4));
  for (auto& [section, key, value] : changes)
    for (auto* text : {&section, &key, &value}) *text = input.ConsumeRandomLengthString();
  require(vutil::set_file_contents(path, input.ConsumeRemainingBytesAsString(), 0600) == 0);
  try {
    // What was read, written and read again is the same document and the same bytes.
    vutil::KeyFile file(path, 0600);
    file.write();
    std::string text;
    require(vutil::get_file_contents(path, text) == 0 && text == file.toString());
    require(vutil::KeyFile(path, 0600).toString() == text);

    // After the changes the file still loads, with every accepted name under itself.
    std::map<std::pair<std::string, std::string>, std::string> accepted;
    for (auto& [section, key, value] : changes) {
      const bool sets = value.size() % 2 == 0;
      if (sets ? file.setString(section, key, value) : file.getString(section, key, value, value))
        accepted[{section, key}] = value;
    }
    vutil::KeyFile loaded(path, 0600);
    for (const auto& [name, value] : accepted) {
      std::string read;
      require(loaded.getString(name.first, name.second, read, "absent\n"));
      require(read == trimmed(value));
    }
  } catch (const std::exception& error) {
    require(typeid(error) == typeid(std::logic_error));
  }
  return 0;
}
