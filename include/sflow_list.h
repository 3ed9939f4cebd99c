// Circular doubly linked list whose links live in the records themselves. A list takes no lock and allocates
// nothing; the record that owns the head says which lock guards it.
#pragma once

#include <cstddef>

struct sflow_list_t {
    sflow_list_t *next;
    sflow_list_t *prev;
};

inline void sflow_list_init(sflow_list_t *head)
{
    head->next = head;
    head->prev = head;
}

inline bool sflow_list_empty(const sflow_list_t *head)
{
    return head->next == head;
}

/// Links `node` in front of `position`; with the head as position that is the end of the list.
inline void sflow_list_insert_before(sflow_list_t *position, sflow_list_t *node)
{
    node->prev = position->prev;
    node->next = position;
    position->prev->next = node;
    position->prev = node;
}

inline void sflow_list_remove(sflow_list_t *node)
{
    node->prev->next = node->next;
    node->next->prev = node->prev;
    node->next = node;
    node->prev = node;
}

/// The record of type T whose first member is the link.
template <typename T>
inline T *sflow_list_entry(sflow_list_t *link)
{
    static_assert(offsetof(T, list) == 0, "the link is the record's first member");
    return reinterpret_cast<T *>(link);
}

/// Calls `visit(record)` for every record in order; the visitor may unlink and free the record it is given.
template <typename T, typename F>
inline void sflow_list_for_each(sflow_list_t *head, F visit)
{
    for (sflow_list_t *link = head->next; link != head;) {
        sflow_list_t *next = link->next;
        visit(sflow_list_entry<T>(link));
        link = next;
    }
}

/// First record for which `wanted(record)` holds, or null.
template <typename T, typename F>
inline T *sflow_list_find(sflow_list_t *head, F wanted)
{
    for (sflow_list_t *link = head->next; link != head; link = link->next) {
        T *record = sflow_list_entry<T>(link);
        if (wanted(record))
            return record;
    }
    return nullptr;
}
