// utlist.cpp: the intrusive list (see utlist.h).
#include "utils/contain/utlist.h"

#include "utils/utmem/utmem.h"

void* c_utils_base::operator new(size_t size) noexcept { return ut_alloc(size); }

void c_utils_base::operator delete(void* block) noexcept { ut_free(block); }

void c_utils_link::unlink()
{
    prev->next = next;
    next->prev = prev;
    next = prev = this;
}

void c_utils_list_base::clear()
{
    while (base_get_first() != nullptr) {
    }
}

void c_utils_list_base::base_insert_after(c_utils_link* where, c_utils_link* element)
{
    element->prev = where;
    element->next = where->next;
    where->next->prev = element;
    where->next = element;
}

c_utils_link* c_utils_list_base::base_get_first()
{
    if (is_empty())
        return nullptr;
    c_utils_link* element = list.next;
    element->unlink();
    return element;
}

c_utils_link* c_utils_list_base::base_get_last()
{
    if (is_empty())
        return nullptr;
    c_utils_link* element = list.prev;
    element->unlink();
    return element;
}

c_utils_link* c_utils_list_base::base_next(c_utils_link* element) const
{
    return element->next == &list ? nullptr : element->next;
}
