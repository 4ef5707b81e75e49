#include "documents.h"

#include <algorithm>
#include <cstdio>
#include <numeric>
#include <random>

#include "suite.h"
#include "vutil/io.h"

namespace vutil::bench {
namespace {

std::string numbered(const char* format, size_t number) {
  char text[64];
  snprintf(text, sizeof(text), format, number);
  return text;
}

std::string value(size_t n) {
  switch (n % 4) {
    case 0:
      return numbered("unit %zu in hall 7", n);
    case 1:
      return numbered("%zu", n);
    case 2:
      return numbered("%zu.25", n);
    default:
      return n % 8 == 3 ? "true" : "false";
  }
}

}  // namespace

void put(const std::string& path, std::string_view contents) {
  require(set_file_contents(path, contents, MODE) == 0, "writing the file of a benchmark");
}

std::vector<size_t> shuffled(size_t count) {
  std::vector<size_t> numbers(count);
  std::iota(numbers.begin(), numbers.end(), 0);
  std::shuffle(numbers.begin(), numbers.end(), std::mt19937(42));
  return numbers;
}

std::string section_name(size_t n) { return numbered("section_%05zu", n / KEYS_PER_SECTION); }

std::string key_name(size_t n) { return numbered("setting_%07zu", n); }

std::string ordered_document(size_t keys) {
  std::string text;
  for (size_t n = 0; n < keys; ++n) {
    if (n % KEYS_PER_SECTION == 0) text.append("[").append(section_name(n)).append("]\n");
    text += key_name(n) + "=" + value(n) + "\n";
  }
  return text;
}

std::string shuffled_document(size_t keys) {
  std::string text = "# Settings of a device.\n";
  for (const size_t section : shuffled((keys + KEYS_PER_SECTION - 1) / KEYS_PER_SECTION)) {
    const size_t first = section * KEYS_PER_SECTION;
    text += "\n# The settings of one part of the device, with a word on each.\n";
    text.append("[").append(section_name(first)).append("]\n");
    for (const size_t offset : shuffled(std::min(KEYS_PER_SECTION, keys - first))) {
      const size_t n = first + offset;
      if (n % 3 == 0) text += "\n# What this one is for, and which values it may have.\n";
      text += key_name(n) + " = " + value(n) + "\n";
    }
  }
  return text;
}

size_t keys_for(size_t bytes) {
  constexpr size_t SAMPLE = 10 * KEYS_PER_SECTION;
  return bytes * SAMPLE / ordered_document(SAMPLE).size();
}

std::string escaped_document(size_t count) {
  std::string text = "[a]\nk=";
  for (size_t n = 0; n < count; ++n) text += "\\#";
  return text + "\n";
}

std::string keys_document(size_t count) {
  std::string text = "[a]\n";
  for (const size_t n : shuffled(count)) text += key_name(n) + "=" + value(n) + "\n";
  return text;
}

std::string sections_document(size_t count) {
  std::string text;
  for (const size_t n : shuffled(count)) {
    text.append("[").append(section_name(n * KEYS_PER_SECTION)).append("]\n");
    text += key_name(n) + "=" + value(n) + "\n";
  }
  return text;
}

std::string same_key_document(size_t count) {
  std::string text = "[a]\n";
  for (size_t n = 0; n < count; ++n) text += "k=" + value(n) + "\n";
  return text;
}

}  // namespace vutil::bench
