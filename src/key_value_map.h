// The keys of one section of a key file, each with its text.
#ifndef VUTIL_SRC_KEY_VALUE_MAP_H_
#define VUTIL_SRC_KEY_VALUE_MAP_H_

#include <algorithm>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vutil {

// An array in the byte-wise order of the keys: less memory and far fewer allocations than a tree,
// and faster to read and to search. That a new key moves others costs little beside its save.
class KeyValueMap {
 public:
  // One string for both takes less memory and time than two, on the whole, and is escaped at once.
  struct Entry {
    std::string_view key() const { return {line.data(), key_size}; }
    std::string_view text() const { return std::string_view(line).substr(key_size + 1); }
    std::string line;  // the key, a separator, the text
    size_t key_size;
  };

  auto begin() const { return entries_.begin(); }
  auto end() const { return entries_.end(); }
  bool empty() const { return entries_.empty(); }

  // The entry of a key, or null if it is absent.
  const Entry* find(std::string_view key) const {
    const auto entry = std::ranges::lower_bound(entries_, key, {}, &Entry::key);
    return entry != end() && entry->key() == key ? &*entry : nullptr;
  }

  // Stores a line, in place of that with the same key, and gives its entry, which stays where it is
  // until the next change, also if the map is moved. If memory runs out, nothing has changed.
  const Entry* store(std::string_view line, size_t key_size) {
    Entry added = {std::string(line), key_size};
    const auto at = std::ranges::lower_bound(entries_, added.key(), {}, &Entry::key);
    if (at == end() || at->key() != added.key()) return &*entries_.insert(at, std::move(added));
    return &(*at = std::move(added));
  }

  // Adds a line after all others, whatever its key. Before find() or store(), sort() must follow.
  // Repeated keys go now and then, if they are most: memory grows with the keys, not the lines.
  void append(std::string_view line, size_t key_size) {
    if (entries_.size() == entries_.capacity()) {
      if (!in_order_ && looked_at_ < entries_.size() / 16) {
        if (order().size() < entries_.size() / 2) sort();
        looked_at_ = entries_.size();
      }
      entries_.reserve(std::max(2 * entries_.size(), size_t{8}));
    }
    in_order_ = in_order_ && (entries_.empty() || entries_.back().key() < line.substr(0, key_size));
    entries_.push_back({std::string(line), key_size});
  }

  // Replaces the entries by those appended to another map, sorted. The other map is empty then, but
  // keeps its room, so that the arrays of many maps can be filled without growing.
  void take(KeyValueMap& other) {
    entries_ = other.sorted();
    other.entries_.clear();
    other.in_order_ = true;
  }

  // Puts appended entries in order; of those with the same key the last one stays.
  void sort() {
    if (!in_order_) entries_ = sorted();
    in_order_ = true;
    entries_.shrink_to_fit();
  }

 private:
  // Pointers, in order and without repeated keys: entries are too large to be moved at each step.
  std::vector<Entry*> order() {
    std::vector<Entry*> result(entries_.size());
    std::ranges::transform(entries_, result.begin(), [](Entry& entry) { return &entry; });
    std::sort(result.begin(), result.end(), [](const Entry* a, const Entry* b) {
      const int comparison = a->key().compare(b->key());
      return comparison != 0 ? comparison < 0 : a > b;  // of equal keys the last one first
    });
    const auto repeated = [](const Entry* a, const Entry* b) { return a->key() == b->key(); };
    result.erase(std::unique(result.begin(), result.end(), repeated), result.end());
    return result;
  }

  std::vector<Entry> sorted() {
    if (in_order_) {
      return {std::move_iterator(entries_.begin()), std::move_iterator(entries_.end())};
    }
    std::vector<Entry> result;
    result.reserve(entries_.size());
    for (Entry* const entry : order()) result.push_back(std::move(*entry));
    return result;
  }

  std::vector<Entry> entries_;
  bool in_order_ = true;  // each appended key is greater than the one before
  size_t looked_at_ = 0;  // how many entries stayed at the last look for repeated keys
};

}  // namespace vutil

#endif  // VUTIL_SRC_KEY_VALUE_MAP_H_
