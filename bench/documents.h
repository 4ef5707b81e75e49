// Key files shaped like real ones, and what all benchmarks need.
#ifndef VUTIL_BENCH_DOCUMENTS_H_
#define VUTIL_BENCH_DOCUMENTS_H_

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <string_view>

#include "vutil/io.h"

namespace vutil::bench {

constexpr unsigned int MODE = 0640;

// Where the files of the benchmarks are, relative to the directory in which script/bench starts
// them: on tmpfs, and on a disk.
constexpr const char* MEMORY = "memory/";
constexpr const char* DISK = "disk/";

// Ends the program when a job has not been done: its time would mean nothing.
inline void require(bool done, const char* what) {
  if (done) return;
  fprintf(stderr, "Failed: %s\n", what);
  exit(1);
}

// The path of a file of this name, which is made when it is first asked for.
inline std::string file(const std::string& name, const std::function<std::string()>& contents) {
  std::string path = MEMORY + name;
  if (access(path.c_str(), F_OK) != 0) {
    require(set_file_contents(path, contents(), MODE) == 0, "writing the file of a benchmark");
  }
  return path;
}

struct Size {
  const char* name;
  size_t bytes;
};
constexpr Size ONE_KB = {"1 KB", 1'000};
constexpr Size FOUR_KB = {"4 KB", 4'000};
constexpr Size HUNDRED_KB = {"100 KB", 100'000};
constexpr Size TEN_MB = {"10 MB", 10'000'000};

// Measured on 628 configuration files of 40 Debian packages, with 11,481 keys: what so many percent
// do not exceed, and how many of the lines are comments.
using Percentiles = std::array<double, 6>;
constexpr Percentiles PERCENT = {10, 25, 50, 75, 90, 95};
constexpr Percentiles KEY_BYTES = {5, 6, 10, 14, 19, 23};
constexpr Percentiles VALUE_BYTES = {2, 4, 12, 21, 42, 61};
constexpr Percentiles SECTION_BYTES = {4, 7, 10, 18, 26, 30};
constexpr Percentiles KEYS_IN_SECTION = {0, 1, 2, 5, 7, 12};
constexpr uint32_t COMMENT_PERCENT = 59;
constexpr uint32_t MOST_COMMENT_BYTES = 72;  // not measured

// Draws, the same on every run.
class Random {
 public:
  // A number less than `end`.
  uint32_t below(uint32_t end) { return static_cast<uint32_t>(uint64_t{engine_()} * end >> 32); }

  // Evenly between two percentiles; none is beyond the outer ones.
  size_t size(const Percentiles& sizes) {
    const double percent = below(10'000) / 100.0;
    const auto n =
        static_cast<size_t>(std::ranges::upper_bound(PERCENT, percent) - PERCENT.begin());
    if (n == 0) return static_cast<size_t>(sizes.front());
    if (n == PERCENT.size()) return static_cast<size_t>(sizes.back());
    const double part = (percent - PERCENT[n - 1]) / (PERCENT[n] - PERCENT[n - 1]);
    return static_cast<size_t>(std::lround(std::lerp(sizes[n - 1], sizes[n], part)));
  }

  std::string characters(std::string_view set, size_t count) {
    std::string text(count, ' ');
    for (char& c : text) c = set[below(static_cast<uint32_t>(set.size()))];
    return text;
  }
  std::string word(size_t bytes) { return characters("abcdefghijklmnopqrstuvwxyz_", bytes); }
  std::string number(size_t digits) { return characters("123456789", digits); }

 private:
  std::mt19937 engine_{42};
};

enum class Type { TEXT, INTEGER, DOUBLE, BOOLEAN };

// Types were not measured: each value has the one that its length suits best.
inline std::string draw_value(Random& random) {
  const size_t bytes = random.size(VALUE_BYTES);
  if (bytes == 4) return "true";
  if (bytes == 5) return "false";
  if (bytes > 9) return random.word(bytes);
  std::string number = random.number(bytes);
  if (bytes > 5) number[bytes - 3] = '.';
  return number;
}

inline Type type_of(std::string_view value) {
  if (value == "true" || value == "false") return Type::BOOLEAN;
  if (value.front() > '9') return Type::TEXT;
  return value.find('.') == std::string_view::npos ? Type::INTEGER : Type::DOUBLE;
}

enum class Style {
  IN_ORDER,  // as a save leaves it
  SHUFFLED,  // as an engineer does: in no order, with comments, blank lines and spaces
};

inline std::string comments(Random& random) {
  std::string text;
  while (random.below(100) < COMMENT_PERCENT) {
    text += "# " + random.word(1 + random.below(MOST_COMMENT_BYTES)) + "\n";
  }
  return text;
}

struct Document {
  std::map<std::string, std::map<std::string, std::string>> sections;  // keys and their values
  std::string text;
};

// A document of at least so many bytes, or of just so many keys, whichever comes first. No section
// and no key of a section stands there twice: Boost refuses that.
inline Document draw_document(size_t bytes, size_t keys, Style style) {
  const bool plain = style == Style::IN_ORDER;
  Random random;
  Document document;
  std::string& text = document.text;
  while (text.size() < bytes && keys > 0) {
    const auto [section, is_new] =
        document.sections.try_emplace(random.word(random.size(SECTION_BYTES)));
    if (!is_new) continue;
    if (!plain) text.append("\n").append(comments(random));
    text.append("[").append(section->first).append("]\n");
    for (size_t left = random.size(KEYS_IN_SECTION); left > 0 && keys > 0 && text.size() < bytes;) {
      const auto [entry, is_added] =
          section->second.try_emplace(random.word(random.size(KEY_BYTES)));
      if (!is_added) continue;
      entry->second = draw_value(random);
      text += plain ? "" : comments(random);
      text += entry->first + (plain ? "=" : " = ") + entry->second + "\n";
      --left, --keys;
    }
  }
  if (!plain) return document;
  text.clear();
  for (const auto& [section, entries] : document.sections) {
    text.append("[").append(section).append("]\n");
    for (const auto& [key, value] : entries) {
      text.append(key).append("=").append(value).append("\n");
    }
  }
  return document;
}

// The path of such a document.
inline std::string document_file(const Size& size, Style style) {
  const std::string name = std::string(size.name) + (style == Style::IN_ORDER ? "" : " shuffled");
  return file(name, [&] { return draw_document(size.bytes, SIZE_MAX, style).text; });
}

}  // namespace vutil::bench

#endif  // VUTIL_BENCH_DOCUMENTS_H_
