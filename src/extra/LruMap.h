// SPDX-License-Identifier: MIT
// A map that forgets the key that was not used for the longest time.
#pragma once

#include <cstddef>
#include <list>
#include <string>
#include <unordered_map>
#include <utility>

namespace Velmora::Internal {

template <typename Value>
class LruMap
{
public:
    explicit LruMap(std::size_t limit) : m_Limit(limit) {}

    // Null if the key is not there.
    Value* Find(const std::string& key)
    {
        const auto found = m_Places.find(key);
        if (found == m_Places.end()) {
            return nullptr;
        }
        m_Entries.splice(m_Entries.begin(), m_Entries, found->second);
        return &found->second->second;
    }

    // The key must not be there.
    Value& Add(const std::string& key, Value value)
    {
        if (m_Places.size() >= m_Limit) {
            m_Places.erase(m_Entries.back().first);
            m_Entries.pop_back();
        }
        m_Entries.emplace_front(key, std::move(value));
        m_Places[key] = m_Entries.begin();
        return m_Entries.front().second;
    }

private:
    using Entries = std::list<std::pair<std::string, Value>>;

    const std::size_t m_Limit;
    Entries m_Entries; // the last used one first
    std::unordered_map<std::string, typename Entries::iterator> m_Places;
};

} // namespace Velmora::Internal
