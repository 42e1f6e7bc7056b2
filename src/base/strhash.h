// The string-keyed hash table of the program: keys are byte strings (UTF-8 text or file-system
// names, compared exactly, so "a.jpg" and "A.JPG" are different keys), the hash is h * 33 + c over
// the bytes, collisions chain in their bucket, and the bucket count grows through a fixed series
// of primes whenever the entries outnumber three quarters of the buckets.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <forward_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace strhash_detail {

// Each step roughly doubles; the last one is final and the table keeps it however full it gets.
inline constexpr std::array<size_t, 27> kPrimes = {
    17,      37,       79,       163,      331,      673,       1361,      2729,      5471,
    10949,   21911,    43853,    87719,    175447,   350899,    701819,    1403641,   2807303,
    5614657, 11229331, 22458671, 44917381, 89834777, 179669557, 359339171, 718678369, 1437356741};

// h = h * 33 + c over the unsigned bytes of the key, from 0, in 32 bits.
inline uint32_t Hash(std::string_view key) {
    uint32_t h = 0;
    for (const char c : key) h = h * 33 + static_cast<unsigned char>(c);
    return h;
}

}  // namespace strhash_detail

// Not thread-safe: the owner guards it. Pointers and references to values stay valid while the
// table grows; they end when their entry is removed or the table is cleared.
template <class V>
class XStrHash {
public:
    XStrHash() = default;
    XStrHash(const XStrHash&) = default;
    XStrHash& operator=(const XStrHash&) = default;
    // A table that was moved from is empty and usable.
    XStrHash(XStrHash&& other) noexcept
        : m_buckets(std::exchange(other.m_buckets, {})),
          m_nCount(std::exchange(other.m_nCount, 0)),
          m_nPrime(std::exchange(other.m_nPrime, 0)) {}
    XStrHash& operator=(XStrHash&& other) noexcept {
        if (this != &other) {
            m_buckets = std::exchange(other.m_buckets, {});
            m_nCount = std::exchange(other.m_nCount, 0);
            m_nPrime = std::exchange(other.m_nPrime, 0);
        }
        return *this;
    }

    V* Find(std::string_view key) {
        Node* node = FindNode(key, strhash_detail::Hash(key));
        return node ? &node->value : nullptr;
    }
    const V* Find(std::string_view key) const { return const_cast<XStrHash*>(this)->Find(key); }

    // Adds the entry; a key that is present already keeps its old value and gives false.
    bool Insert(std::string key, V value) {
        const uint32_t hash = strhash_detail::Hash(key);
        if (FindNode(key, hash)) return false;
        Add(std::move(key), std::move(value), hash);
        return true;
    }

    // Adds the entry or replaces the value of a present key; returns the stored value.
    V& Set(std::string key, V value) {
        const uint32_t hash = strhash_detail::Hash(key);
        if (Node* node = FindNode(key, hash)) {
            node->value = std::move(value);
            return node->value;
        }
        return Add(std::move(key), std::move(value), hash);
    }

    bool Remove(std::string_view key) {
        if (m_buckets.empty()) return false;
        const uint32_t hash = strhash_detail::Hash(key);
        Chain& chain = m_buckets[hash % m_buckets.size()];
        for (auto prev = chain.before_begin(), it = chain.begin(); it != chain.end(); prev = it++) {
            if (it->hash == hash && it->key == key) {
                chain.erase_after(prev);
                --m_nCount;
                return true;
            }
        }
        return false;
    }

    size_t Count() const { return m_nCount; }
    size_t BucketCount() const { return strhash_detail::kPrimes[m_nPrime]; }

    // Removes every entry and returns to the first bucket count.
    void Clear() {
        m_buckets = {};
        m_nCount = 0;
        m_nPrime = 0;
    }

    // Calls f(const std::string& key, V& value) for every entry, in no particular order. The
    // callback must not add or remove entries.
    template <class F>
    void ForEach(F&& f) {
        for (Chain& chain : m_buckets) {
            for (Node& node : chain) f(std::as_const(node.key), node.value);
        }
    }
    template <class F>
    void ForEach(F&& f) const {
        for (const Chain& chain : m_buckets) {
            for (const Node& node : chain) f(node.key, node.value);
        }
    }

private:
    struct Node {
        std::string key;
        V value;
        uint32_t hash;  // kept so that growing never hashes a key again
    };
    using Chain = std::forward_list<Node>;

    Node* FindNode(std::string_view key, uint32_t hash) {
        if (m_buckets.empty()) return nullptr;
        for (Node& node : m_buckets[hash % m_buckets.size()]) {
            if (node.hash == hash && node.key == key) return &node;
        }
        return nullptr;
    }

    V& Add(std::string key, V value, uint32_t hash) {
        // The buckets are allocated on the first entry, so an unused table costs nothing.
        if (m_buckets.empty()) m_buckets.resize(strhash_detail::kPrimes[m_nPrime]);
        Chain& chain = m_buckets[hash % m_buckets.size()];
        chain.push_front(Node{std::move(key), std::move(value), hash});
        Node& node = chain.front();
        if (++m_nCount * 4 > m_buckets.size() * 3 &&
            m_nPrime + 1 < strhash_detail::kPrimes.size()) {
            Grow(strhash_detail::kPrimes[++m_nPrime]);
        }
        return node.value;
    }

    // Moves the nodes themselves into the new buckets, so values never move in memory.
    void Grow(size_t bucketCount) {
        std::vector<Chain> grown(bucketCount);
        for (Chain& chain : m_buckets) {
            while (!chain.empty()) {
                Chain& target = grown[chain.front().hash % bucketCount];
                target.splice_after(target.before_begin(), chain, chain.before_begin());
            }
        }
        m_buckets = std::move(grown);
    }

    std::vector<Chain> m_buckets;  // empty until the first entry
    size_t m_nCount = 0;
    size_t m_nPrime = 0;  // index into kPrimes of the bucket count
};
