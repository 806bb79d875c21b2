#pragma once

#include <QHash>
#include <QList>

#include <utility>

// A dictionary that iterates its keys in first-insertion order.
template <typename Key, typename Value> class OrderedDictionary {
public:
    using Entry = std::pair<Key, Value>;

    // Inserts or overwrites; an overwritten key keeps its original position.
    void insert(const Key& key, const Value& value) {
        const auto it = m_index.constFind(key);
        if (it != m_index.constEnd()) {
            m_entries[*it].second = value;
            return;
        }
        m_index.insert(key, m_entries.size());
        m_entries.append({key, value});
    }
    bool contains(const Key& key) const { return m_index.contains(key); }
    Value value(const Key& key, const Value& fallback = Value()) const {
        const auto it = m_index.constFind(key);
        return it == m_index.constEnd() ? fallback : m_entries[*it].second;
    }
    void remove(const Key& key) {
        const auto it = m_index.constFind(key);
        if (it == m_index.constEnd())
            return;
        m_entries.removeAt(*it);
        m_index.clear();
        for (qsizetype i = 0; i < m_entries.size(); ++i)
            m_index.insert(m_entries[i].first, i);
    }
    QList<Key> keys() const {
        QList<Key> out;
        out.reserve(m_entries.size());
        for (const auto& e : m_entries)
            out.append(e.first);
        return out;
    }
    QList<Value> values() const {
        QList<Value> out;
        out.reserve(m_entries.size());
        for (const auto& e : m_entries)
            out.append(e.second);
        return out;
    }
    qsizetype size() const { return m_entries.size(); }
    bool isEmpty() const { return m_entries.isEmpty(); }
    const Entry& at(qsizetype i) const { return m_entries.at(i); }
    auto begin() const { return m_entries.cbegin(); }
    auto end() const { return m_entries.cend(); }
    bool operator==(const OrderedDictionary& o) const { return m_entries == o.m_entries; }

private:
    QList<Entry> m_entries;
    QHash<Key, qsizetype> m_index;
};
