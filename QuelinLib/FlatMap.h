#pragma once
#include <algorithm>
#include <utility>
#include <vector>

namespace Quelin {

/// Map kept as a sorted vector: small, cache-friendly, ordered iteration.
template <typename K, typename V, typename Less = std::less<>> class FlatMap {
public:
    using value_type = std::pair<K, V>;
    using iterator = typename std::vector<value_type>::iterator;
    using const_iterator = typename std::vector<value_type>::const_iterator;

    template <typename Key> iterator find(Key const& key) {
        auto it = lowerBound(key);
        return (it != mItems.end() && !Less{}(key, it->first)) ? it : mItems.end();
    }
    template <typename Key> const_iterator find(Key const& key) const {
        return const_cast<FlatMap*>(this)->find(key);
    }
    template <typename Key> bool contains(Key const& key) const { return find(key) != end(); }

    /// Inserts or replaces; returns the stored value.
    V& insertOrAssign(K key, V value) {
        auto it = lowerBound(key);
        if (it != mItems.end() && !Less{}(key, it->first)) {
            it->second = std::move(value);
            return it->second;
        }
        return mItems.insert(it, value_type(std::move(key), std::move(value)))->second;
    }
    V& operator[](K const& key) {
        auto it = lowerBound(key);
        if (it == mItems.end() || Less{}(key, it->first)) it = mItems.insert(it, value_type(key, V{}));
        return it->second;
    }
    template <typename Key> bool erase(Key const& key) {
        auto it = find(key);
        if (it == mItems.end()) return false;
        mItems.erase(it);
        return true;
    }
    std::size_t size() const { return mItems.size(); }
    bool empty() const { return mItems.empty(); }
    void clear() { mItems.clear(); }
    iterator begin() { return mItems.begin(); }
    iterator end() { return mItems.end(); }
    const_iterator begin() const { return mItems.begin(); }
    const_iterator end() const { return mItems.end(); }

private:
    template <typename Key> iterator lowerBound(Key const& key) {
        return std::lower_bound(mItems.begin(), mItems.end(), key,
                                [](value_type const& a, Key const& k) { return Less{}(a.first, k); });
    }
    std::vector<value_type> mItems;
};

} // namespace Quelin
