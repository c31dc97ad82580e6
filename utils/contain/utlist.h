// utlist.h: an intrusive doubly linked list.
//
//     +-> head <-> first <-> ... <-> last <-+      the head link, inside the list object, closes the ring; an element
//     +-------------------------------------+      that is in no list points to itself
//
// An element sits in one list at a time and leaves it when it is destroyed. A list that is destroyed only takes its
// head out; the elements stay linked to each other. No locks: the user of a list has one. Not signal-safe.
#pragma once

#include "utils/utmem/utmem.h"

// The root of the container classes: their memory comes from the library's wrappers, null when there is none.
class c_utils_base {
public:
    void* operator new(size_t size) noexcept { return ut_alloc(size); }
    void operator delete(void* block) noexcept { ut_free(block); }
};

class c_utils_link : public c_utils_base {
public:
    c_utils_link() : next(this), prev(this) {}
    virtual ~c_utils_link() { unlink(); }

    void unlink()
    {
        prev->next = next;
        next->prev = prev;
        next = prev = this;
    }
    a_bool is_linked() const { return next != this; }
    a_bool is_linked_no_assert() const { return is_linked(); }

    c_utils_link* next;
    c_utils_link* prev;

protected:
    // A copy is in no list: its place is the original's.
    c_utils_link(const c_utils_link&) : c_utils_base(), next(this), prev(this) {}
    c_utils_link& operator=(const c_utils_link&) { return *this; }
};

class c_utils_list_base : public c_utils_base {
public:
    virtual ~c_utils_list_base() = default;

    a_bool is_empty() const { return !list.is_linked(); }
    a_bool is_empty_no_assert() const { return is_empty(); }
    void clear()  // takes every element out; none is destroyed
    {
        while (base_get_first() != nullptr)
            continue;
    }

protected:
    void base_insert(c_utils_link* element) { base_insert_after(&list, element); }
    void base_append(c_utils_link* element) { base_insert_before(&list, element); }
    void base_insert_after(c_utils_link* where, c_utils_link* element)
    {
        element->prev = where;
        element->next = where->next;
        where->next->prev = element;
        where->next = element;
    }
    void base_insert_before(c_utils_link* where, c_utils_link* element) { base_insert_after(where->prev, element); }
    c_utils_link* base_get_first() { return taken_out(list.next); }  // null when the list is empty
    c_utils_link* base_get_last() { return taken_out(list.prev); }
    // The one behind, which stays; null behind the last.
    c_utils_link* base_next(c_utils_link* element) const { return element->next == &list ? nullptr : element->next; }

    c_utils_link list;

private:
    c_utils_link* taken_out(c_utils_link* element)
    {
        if (element == &list)
            return nullptr;
        element->unlink();
        return element;
    }

    friend class c_utils_iter_base;
};

// Walks a list. The element that it stands on must not leave the list before it has moved on.
class c_utils_iter_base : public c_utils_base {
public:
    explicit c_utils_iter_base(c_utils_list_base& of) { base_init(of); }
    virtual ~c_utils_iter_base() = default;

    a_bool is_past() const { return curr == &list->list; }
    void first() { curr = list->list.next; }
    void last() { curr = list->list.prev; }
    void next() { curr = curr->next; }
    void prev() { curr = curr->prev; }

protected:
    void base_init(c_utils_list_base& of)
    {
        list = &of;
        first();
    }
    c_utils_link* base_get() const { return is_past() ? nullptr : curr; }

    c_utils_list_base* list;
    c_utils_link* curr;
};
