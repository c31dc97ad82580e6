// utcallers.cpp: modules and callers (see utcallers.h).
//
// The unwinder of gcc 12 and later finds a frame's module by _dl_find_object, which takes no lock and allocates
// nothing; so neither does the walk, which may run where malloc, dlopen or the unwinder itself was interrupted.
// dl_iterate_phdr, which locks, is not used: the build-id is read where the file's own headers are mapped. No state.
// Signal-safe: all of it, but what says otherwise.
#include "utils/unix/utcallers.h"

#include <dlfcn.h>
#include <elf.h>
#include <link.h>
#include <string.h>
#include <unwind.h>

namespace {

constexpr size_t max_build_id = 64;    // bytes
constexpr uint32 max_own_frames = 64;  // of the handler, and of one that has passed the signal on

_Unwind_Reason_Code add_frame(struct _Unwind_Context* frame, void* arg)
{
    a_caller_list& callers = *static_cast<a_caller_list*>(arg);
    int exact = 0;  // the frame was interrupted here: it is not a return address
    const uint64 pc = _Unwind_GetIPInfo(frame, &exact);
    if (!callers.found) {
        callers.found = pc == callers.from;
        return callers.found || ++callers.own < max_own_frames ? _URC_NO_REASON : _URC_END_OF_STACK;
    }
    callers.more = pc != 0 && callers.count == ut_max_callers;
    if (pc == 0 || callers.more)
        return _URC_END_OF_STACK;
    callers.pcs[callers.count++] = exact ? pc : pc - 1;
    return _URC_NO_REASON;
}

_Unwind_Reason_Code stop(struct _Unwind_Context*, void*) { return _URC_END_OF_STACK; }

void search_notes(a_place& place, const unsigned char* at, size_t size)
{
    const auto whole_words = [](size_t bytes) { return (bytes + 3) & ~size_t(3); };
    while (size >= sizeof(ElfW(Nhdr))) {
        const ElfW(Nhdr)& note = *reinterpret_cast<const ElfW(Nhdr)*>(at);
        const size_t name = sizeof note, text = name + whole_words(note.n_namesz);
        const size_t next = text + whole_words(note.n_descsz);
        if (next > size)
            return;
        if (note.n_type == NT_GNU_BUILD_ID && note.n_namesz == 4 && memcmp(at + name, "GNU", 4) == 0) {
            place.build_id_size = note.n_descsz < max_build_id ? note.n_descsz : max_build_id;
            place.build_id = at + text;
        }
        at += next;
        size -= next;
    }
}

}  // namespace

void ut_find_place(a_place& place, uint64 pc)
{
    place = {};
    place.pc = pc;
    struct dl_find_object found;
    if (_dl_find_object(reinterpret_cast<void*>(pc), &found) != 0)
        return;
    place.offset = pc - found.dlfo_link_map->l_addr;
    place.start = static_cast<const unsigned char*>(found.dlfo_map_start);
    place.end = static_cast<const unsigned char*>(found.dlfo_map_end);
    const char* const path = found.dlfo_link_map->l_name;
    const char* const slash = strrchr(path, '/');
    place.module = slash != nullptr ? slash + 1 : path;
    place.module_size = strlen(place.module);
}

void ut_find_build_id(a_place& place)
{
    if (place.module == nullptr || memcmp(place.start, ELFMAG, SELFMAG) != 0)
        return;
    const ElfW(Ehdr)& header = *reinterpret_cast<const ElfW(Ehdr)*>(place.start);
    const ElfW(Phdr)* const segments = reinterpret_cast<const ElfW(Phdr)*>(place.start + header.e_phoff);
    const uint64 base = place.pc - place.offset;
    for (uint32 i = 0; i < header.e_phnum; i++) {
        const unsigned char* const notes = reinterpret_cast<const unsigned char*>(base + segments[i].p_vaddr);
        if (segments[i].p_type == PT_NOTE && notes >= place.start && notes < place.end &&
            segments[i].p_memsz <= size_t(place.end - notes))
            search_notes(place, notes, segments[i].p_memsz);
    }
}

// After a call to where no code is, the stack begins with the return address: the walk begins at the call then. The
// unwinder reads the context, which is changed for that long.
void ut_find_callers(a_caller_list& callers, ucontext_t& context, bool nowhere)
{
    auto& registers = context.uc_mcontext.gregs;
    const greg_t pc = registers[REG_RIP], sp = registers[REG_RSP];
    if (nowhere) {
        uint64 back;
        memcpy(&back, reinterpret_cast<const void*>(sp), sizeof back);
        callers.pcs[callers.count++] = back - 1;
        registers[REG_RIP] = greg_t(back - 1);
        registers[REG_RSP] = sp + greg_t(sizeof back);
    }
    callers.from = uint64(registers[REG_RIP]);
    _Unwind_Backtrace(add_frame, &callers);
    registers[REG_RIP] = pc;
    registers[REG_RSP] = sp;
}

void ut_prepare_callers() { _Unwind_Backtrace(stop, nullptr); }
