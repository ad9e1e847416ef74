// A read-only value-to-name table for traces, built once from a static initialiser; a missing value
// reads "Unknown".
#pragma once

#include <initializer_list>
#include <unordered_map>
#include <utility>

namespace user_space_frameworks {

template <typename Key>
class NameMap {
 public:
  NameMap(std::initializer_list<std::pair<const Key, const char *>> entries) : names(entries) {}

  const char *operator[](Key key) const {
    const auto found = names.find(key);
    return found == names.end() ? "Unknown" : found->second;
  }
  bool Contains(Key key) const { return names.count(key) != 0; }

 private:
  std::unordered_map<Key, const char *> names;
};

}  // namespace user_space_frameworks
