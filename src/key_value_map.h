// The keys of one section of a key file, each with its text.
#ifndef VUTIL_SRC_KEY_VALUE_MAP_H_
#define VUTIL_SRC_KEY_VALUE_MAP_H_

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <numeric>
#include <string>
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

  // Adds an entry after all others, whatever its key. Before any other use, sort() must follow.
  // Repeated keys go before the array grows: a file takes memory for its keys, not for its lines.
  void append(Entry entry) {
    if (entries_.size() == entries_.capacity()) {
      if (in_order_ < entries_.size() / 4) sort();
      entries_.reserve(std::max(2 * entries_.size(), std::size_t{8}));
    }
    const bool in_order = entries_.empty() || entries_.back().key < entry.key;
    if (in_order && in_order_ == entries_.size()) ++in_order_;
    entries_.push_back(std::move(entry));
  }

  // Replaces the entries by those appended to another map, which is empty afterwards and keeps its
  // room: through it, the arrays of many maps are filled without growing.
  void take(KeyValueMap& other) {
    entries_ = other.sorted();
    in_order_ = entries_.size();
    other.entries_.clear();
    other.in_order_ = 0;
  }

  // Puts appended entries in order; of those with the same key the last one stays.
  void sort() {
    if (in_order_ < entries_.size()) entries_ = sorted();
    in_order_ = entries_.size();
    entries_.shrink_to_fit();
  }

 private:
  // Moves the entries into an array that has room just for them, in order and without repeated
  // keys. Pointers are sorted: an entry is too large to be moved at each step.
  std::vector<Entry> sorted() {
    if (in_order_ == entries_.size()) {
      return {std::move_iterator(entries_.begin()), std::move_iterator(entries_.end())};
    }
    std::vector<Entry*> order(entries_.size());
    std::iota(order.begin(), order.end(), entries_.data());
    const auto before = [](const Entry* a, const Entry* b) {
      const int comparison = a->key.compare(b->key);
      return comparison != 0 ? comparison < 0 : a > b;  // of equal keys the last one first
    };
    const auto unordered = order.begin() + static_cast<std::ptrdiff_t>(in_order_);
    std::sort(unordered, order.end(), before);
    std::inplace_merge(order.begin(), unordered, order.end(), before);
    const auto repeated = [](const Entry* a, const Entry* b) { return a->key == b->key; };
    order.erase(std::unique(order.begin(), order.end(), repeated), order.end());
    std::vector<Entry> result;
    result.reserve(order.size());
    for (Entry* const entry : order) result.push_back(std::move(*entry));
    return result;
  }

  std::vector<Entry> entries_;
  std::size_t in_order_ = 0;  // at least so many entries, from the first, are in order
};

}  // namespace vutil

#endif  // VUTIL_SRC_KEY_VALUE_MAP_H_
