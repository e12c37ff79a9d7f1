// A list that owns its records, newest first. A record has the members prev and next, which utlist's macros
// link. Records that are left when the process ends stay: nothing is released behind the last message.
#pragma once

#include <utlist.h>

#include <memory>

template <typename T>
class record_list
{
public:
    // Visits a record whose successor it knows already: the loop's body may take the record that it visits,
    // and add others.
    class iterator
    {
    public:
        explicit iterator(T *record) : record_(record), next_(record != nullptr ? record->next : nullptr) {}
        T &operator*() const { return *record_; }
        iterator &operator++() { return *this = iterator(next_); }
        bool operator!=(const iterator &other) const { return record_ != other.record_; }

    private:
        T *record_;
        T *next_;
    };

    iterator begin() const { return iterator(newest_); }
    iterator end() const { return iterator(nullptr); }

    T *newest() const { return newest_; }

    T *add(std::unique_ptr<T> record)
    {
        T *const added = record.release();
        DL_PREPEND(newest_, added);
        return added;
    }

    void remove(T &record) { take(record); }

    // The caller owns the record again.
    std::unique_ptr<T> take(T &record)
    {
        T *const taken = &record;
        DL_DELETE(newest_, taken);
        return std::unique_ptr<T>(taken);
    }

private:
    T *newest_ = nullptr;
};
