// The keys of one section of a key file, each with its text.
#ifndef VUTIL_SRC_KEY_VALUE_MAP_H_
#define VUTIL_SRC_KEY_VALUE_MAP_H_

#include <algorithm>
#include <iterator>
#include <numeric>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vutil {

// An array in the byte-wise order of the keys. Beside a tree with a node for each key it needs less
// memory and far fewer allocations, and is faster to read and to search. A new key moves what
// stands after it, which costs little beside the save that follows.
class KeyValueMap {
 public:
  struct Entry {
    std::string key, text;
  };

  auto begin() const { return entries_.begin(); }
  auto end() const { return entries_.end(); }
  bool empty() const { return entries_.empty(); }

  // The text of a key, or null if it is absent.
  const std::string* find(const std::string& key) const {
    const auto entry = std::ranges::lower_bound(entries_, key, {}, &Entry::key);
    return entry != end() && entry->key == key ? &entry->text : nullptr;
  }

  // Stores a text under a key, new or not, and gives its place, which stays the same until the next
  // change, also if the map is moved. If memory runs out, nothing has changed.
  const std::string* store(const std::string& key, const std::string& text) {
    const auto entry = std::ranges::lower_bound(entries_, key, {}, &Entry::key);
    if (entry == end() || entry->key != key) return &entries_.insert(entry, {key, text})->text;
    entry->text = text;
    return &entry->text;
  }

  // Adds a key after all others, whatever it is. Before find() or store(), sort() must follow. Now
  // and then, repeated keys go if they are most: memory grows with the keys, not with the lines.
  void append(std::string_view key, std::string_view text) {
    if (entries_.size() == entries_.capacity()) {
      if (!in_order_ && looked_at_ < entries_.size() / 16) {
        if (order().size() < entries_.size() / 2) sort();
        looked_at_ = entries_.size();
      }
      entries_.reserve(std::max(2 * entries_.size(), size_t{8}));
    }
    in_order_ = in_order_ && (entries_.empty() || entries_.back().key < key);
    entries_.push_back({std::string(key), std::string(text)});
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
    std::iota(result.begin(), result.end(), entries_.data());
    std::sort(result.begin(), result.end(), [](const Entry* a, const Entry* b) {
      const int comparison = a->key.compare(b->key);
      return comparison != 0 ? comparison < 0 : a > b;  // of equal keys the last one first
    });
    const auto repeated = [](const Entry* a, const Entry* b) { return a->key == b->key; };
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
