#include "tests/support/allocation_faults.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <elf.h>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

namespace vu::test {

namespace {

int64_t made = 0;
int64_t firstToFail = -1;
int64_t lastToFail = -1;

bool fails()
{
    const int64_t number = made++;
    return number >= firstToFail && number <= lastToFail;
}

void *faultyMalloc(size_t size)
{
    return fails() ? nullptr : std::malloc(size);
}
void *faultyCalloc(size_t count, size_t size)
{
    return fails() ? nullptr : std::calloc(count, size);
}
void *faultyRealloc(void *memory, size_t size)
{
    return fails() ? nullptr : std::realloc(memory, size);
}
void *faultyAlignedAlloc(size_t alignment, size_t size)
{
    return fails() ? nullptr : std::aligned_alloc(alignment, size);
}
char *faultyStrdup(const char *text)
{
    return fails() ? nullptr : strdup(text);
}
int faultyVasprintf(char **out, const char *format, va_list arguments)
{
    return fails() ? -1 : vasprintf(out, format, arguments);
}

struct Patch {
    const char *name;
    void *replacement;
};
const Patch patches[] = {{"malloc", reinterpret_cast<void *>(faultyMalloc)},
                         {"calloc", reinterpret_cast<void *>(faultyCalloc)},
                         {"realloc", reinterpret_cast<void *>(faultyRealloc)},
                         {"aligned_alloc", reinterpret_cast<void *>(faultyAlignedAlloc)},
                         {"strdup", reinterpret_cast<void *>(faultyStrdup)},
                         {"vasprintf", reinterpret_cast<void *>(faultyVasprintf)}};

void patchSlot(void **slot, void *replacement)
{
    const auto page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    auto *start = reinterpret_cast<void *>(reinterpret_cast<uintptr_t>(slot) & ~(page - 1));
    mprotect(start, page, PROT_READ | PROT_WRITE);
    *slot = replacement;
}

void patchTable(const dl_phdr_info &object, const ElfW(Rela) * table, size_t bytes, const ElfW(Sym) * symbols,
                const char *names)
{
    for (size_t i = 0; table && i < bytes / sizeof *table; i++) {
        const auto type = ELF64_R_TYPE(table[i].r_info);
        if (type != R_X86_64_JUMP_SLOT && type != R_X86_64_GLOB_DAT)
            continue;
        const char *name = names + symbols[ELF64_R_SYM(table[i].r_info)].st_name;
        for (const Patch &patch : patches)
            if (std::strcmp(name, patch.name) == 0)
                patchSlot(reinterpret_cast<void **>(object.dlpi_addr + table[i].r_offset), patch.replacement);
    }
}

int patchLibrary(dl_phdr_info *object, size_t, void *)
{
    if (!std::strstr(object->dlpi_name, "libvu.so"))
        return 0;
    const ElfW(Dyn) *entry = nullptr;
    for (int i = 0; i < object->dlpi_phnum; i++)
        if (object->dlpi_phdr[i].p_type == PT_DYNAMIC)
            entry = reinterpret_cast<const ElfW(Dyn) *>(object->dlpi_addr + object->dlpi_phdr[i].p_vaddr);
    const ElfW(Sym) *symbols = nullptr;
    const char *names = nullptr;
    const ElfW(Rela) *lazy = nullptr, *eager = nullptr;
    size_t lazyBytes = 0, eagerBytes = 0;
    for (; entry && entry->d_tag != DT_NULL; entry++) {
        switch (entry->d_tag) {
        case DT_SYMTAB: symbols = reinterpret_cast<const ElfW(Sym) *>(entry->d_un.d_ptr); break;
        case DT_STRTAB: names = reinterpret_cast<const char *>(entry->d_un.d_ptr); break;
        case DT_JMPREL: lazy = reinterpret_cast<const ElfW(Rela) *>(entry->d_un.d_ptr); break;
        case DT_PLTRELSZ: lazyBytes = entry->d_un.d_val; break;
        case DT_RELA: eager = reinterpret_cast<const ElfW(Rela) *>(entry->d_un.d_ptr); break;
        case DT_RELASZ: eagerBytes = entry->d_un.d_val; break;
        default: break;
        }
    }
    patchTable(*object, lazy, lazyBytes, symbols, names);
    patchTable(*object, eager, eagerBytes, symbols, names);
    return 1;
}

} // namespace

AllocationFaults::AllocationFaults()
{
    static const bool patched = dl_iterate_phdr(patchLibrary, nullptr) == 1;
    if (!patched)
        std::abort();
    failNone();
    reset();
}

AllocationFaults::~AllocationFaults()
{
    failNone();
}

void AllocationFaults::failAt(int64_t n, int64_t more)
{
    firstToFail = made + n;
    lastToFail = firstToFail + more;
}

void AllocationFaults::failNone()
{
    firstToFail = lastToFail = -1;
}

int64_t AllocationFaults::count() const
{
    return made;
}

void AllocationFaults::reset()
{
    made = 0;
}

} // namespace vu::test
