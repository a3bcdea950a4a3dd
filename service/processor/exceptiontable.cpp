#include "exceptiontable.h"

#include <elfutils/libdw.h>

#include <cstdint>
#include <cstring>

namespace {

// DW_EH_PE_*: how .eh_frame and the call-site tables encode their pointers.
enum : uint8_t {
    PeAbsptr = 0x00, PeUleb128 = 0x01, PeUdata2 = 0x02, PeUdata4 = 0x03, PeUdata8 = 0x04,
    PeSleb128 = 0x09, PeSdata2 = 0x0a, PeSdata4 = 0x0b, PeSdata8 = 0x0c,
    PePcrel = 0x10, PeIndirect = 0x80, PeOmit = 0xff
};

const int MaxEntries = 100000;

// Bytes of one section, read from `at` up to `end`; each read fails rather than pass `end`.
struct Reader
{
    const uint8_t *at;
    const uint8_t *end;
    const uint8_t *begin;
    GElf_Addr address;  // the address of `begin`

    GElf_Addr here() const { return address + GElf_Addr(at - begin); }

    bool byte(uint8_t *value)
    {
        if (at >= end)
            return false;
        *value = *at++;
        return true;
    }

    bool uleb(uint64_t *value)
    {
        *value = 0;
        for (int shift = 0; shift < 64; shift += 7) {
            uint8_t b;
            if (!byte(&b))
                return false;
            *value |= uint64_t(b & 0x7f) << shift;
            if (!(b & 0x80))
                return true;
        }
        return false;
    }

    bool sleb(int64_t *value)
    {
        uint64_t result = 0;
        for (int shift = 0; shift < 64; shift += 7) {
            uint8_t b;
            if (!byte(&b))
                return false;
            result |= uint64_t(b & 0x7f) << shift;
            if (!(b & 0x80)) {
                if (shift + 7 < 64 && (b & 0x40))
                    result |= ~uint64_t(0) << (shift + 7);
                *value = int64_t(result);
                return true;
            }
        }
        return false;
    }

    // Little-endian, as the only files read here are.
    bool fixed(int size, bool isSigned, uint64_t *value)
    {
        if (end - at < size)
            return false;
        uint64_t result = 0;
        for (int i = size - 1; i >= 0; --i)
            result = result << 8 | at[i];
        if (isSigned && size < 8 && (result >> (size * 8 - 1)) & 1)
            result |= ~uint64_t(0) << (size * 8);
        at += size;
        *value = result;
        return true;
    }
};

// The section of `elf` whose loaded bytes hold `address`, as a reader positioned there.
bool sectionAt(Elf *elf, GElf_Addr address, Reader *reader)
{
    for (Elf_Scn *scn = elf_nextscn(elf, nullptr); scn; scn = elf_nextscn(elf, scn)) {
        GElf_Shdr shdr;
        // .tbss claims addresses that the sections after it use too.
        if (!gelf_getshdr(scn, &shdr) || !(shdr.sh_flags & SHF_ALLOC) || (shdr.sh_flags & SHF_TLS)
            || address < shdr.sh_addr || address - shdr.sh_addr >= shdr.sh_size)
            continue;
        if (shdr.sh_type == SHT_NOBITS)
            return false;
        Elf_Data *data = elf_getdata(scn, nullptr);
        if (!data || !data->d_buf || data->d_size != shdr.sh_size)
            return false;
        reader->begin = static_cast<const uint8_t *>(data->d_buf);
        reader->end = reader->begin + data->d_size;
        reader->at = reader->begin + (address - shdr.sh_addr);
        reader->address = shdr.sh_addr;
        return true;
    }
    return false;
}

// A value in one of the DW_EH_PE_* encodings, made absolute as libgcc does: a zero stays zero.
bool readEncoded(Elf *elf, Reader &reader, uint8_t encoding, uint64_t *value)
{
    if (encoding == PeOmit)
        return false;
    const GElf_Addr field = reader.here();
    uint64_t raw = 0;
    bool read = false;
    switch (encoding & 0x0f) {
    case PeAbsptr:
    case PeUdata8:
    case PeSdata8: read = reader.fixed(8, false, &raw); break;
    case PeUleb128: read = reader.uleb(&raw); break;
    case PeUdata2: read = reader.fixed(2, false, &raw); break;
    case PeUdata4: read = reader.fixed(4, false, &raw); break;
    case PeSdata2: read = reader.fixed(2, true, &raw); break;
    case PeSdata4: read = reader.fixed(4, true, &raw); break;
    case PeSleb128: {
        int64_t s;
        read = reader.sleb(&s);
        raw = uint64_t(s);
        break;
    }
    default: return false;
    }
    if (!read)
        return false;
    // Bases other than the field itself need a running process's registers or tables.
    switch (encoding & 0x70) {
    case 0: break;
    case PePcrel: if (raw != 0) raw += field; break;
    default: return false;
    }
    if ((encoding & PeIndirect) && raw != 0) {
        Reader slot;
        if (!sectionAt(elf, raw, &slot) || !slot.fixed(8, false, &raw))
            return false;
    }
    *value = raw;
    return true;
}

struct Fde
{
    GElf_Addr start = 0;
    GElf_Addr lsda = 0;
};

// The FDE whose range holds `address`, with its LSDA's address (0 without one).
bool fdeFor(Elf *elf, GElf_Addr address, Fde *found)
{
    Elf_Scn *ehFrame = nullptr;
    size_t names;
    if (elf_getshdrstrndx(elf, &names) != 0)
        return false;
    GElf_Shdr shdr;
    for (Elf_Scn *scn = elf_nextscn(elf, nullptr); scn && !ehFrame; scn = elf_nextscn(elf, scn)) {
        const char *name = gelf_getshdr(scn, &shdr) ? elf_strptr(elf, names, shdr.sh_name) : nullptr;
        if (name && strcmp(name, ".eh_frame") == 0)
            ehFrame = scn;
    }
    if (!ehFrame || !gelf_getshdr(ehFrame, &shdr) || shdr.sh_type != SHT_PROGBITS)
        return false;
    Elf_Data *data = elf_getdata(ehFrame, nullptr);
    const unsigned char *ident = reinterpret_cast<const unsigned char *>(elf_getident(elf, nullptr));
    if (!data || !data->d_buf || !ident)
        return false;
    const uint8_t *begin = static_cast<const uint8_t *>(data->d_buf);
    const uint8_t *end = begin + data->d_size;

    Dwarf_Off offset = 0;
    for (int entries = 0; entries < MaxEntries; ++entries) {
        Dwarf_Off next = Dwarf_Off(-1);
        Dwarf_CFI_Entry entry;
        const int status = dwarf_next_cfi(ident, data, true, offset, &next, &entry);
        if (status == 1 || (status != 0 && (next == Dwarf_Off(-1) || next <= offset)))
            return false;
        const Dwarf_Off here = offset;
        offset = next;
        if (status != 0 || dwarf_cfi_cie_p(&entry))
            continue;
        Dwarf_CFI_Entry cie;
        Dwarf_Off afterCie;
        if (entry.fde.CIE_pointer >= here
            || dwarf_next_cfi(ident, data, true, entry.fde.CIE_pointer, &afterCie, &cie) != 0 || !dwarf_cfi_cie_p(&cie))
            continue;
        // Only 'z' says how long the data it augments is; without it nothing here can be read.
        const char *augmentation = cie.cie.augmentation;
        if (!augmentation || augmentation[0] != 'z' || !cie.cie.augmentation_data)
            continue;
        const uint8_t *cieData = cie.cie.augmentation_data;
        Reader cieReader{ cieData, cieData + cie.cie.augmentation_data_size, begin, shdr.sh_addr };
        uint8_t fdeEncoding = PeAbsptr, lsdaEncoding = PeOmit;
        bool understood = true;
        for (const char *a = augmentation + 1; *a && understood; ++a) {
            uint8_t encoding;
            uint64_t ignored;
            switch (*a) {
            case 'R': understood = cieReader.byte(&fdeEncoding); break;
            case 'L': understood = cieReader.byte(&lsdaEncoding); break;
            case 'P': understood = cieReader.byte(&encoding) && readEncoded(elf, cieReader, encoding & ~PeIndirect, &ignored); break;
            case 'S':
            case 'B': break;
            default: understood = false;
            }
        }
        if (!understood)
            continue;

        Reader fde{ entry.fde.start, entry.fde.end, begin, shdr.sh_addr };
        if (fde.at < begin || fde.end > end || fde.at > fde.end)
            return false;
        uint64_t start, length, augmentationSize;
        if (!readEncoded(elf, fde, fdeEncoding & ~PeIndirect, &start) || !readEncoded(elf, fde, fdeEncoding & 0x0f, &length))
            continue;
        if (address < start || address - start >= length)
            continue;
        found->start = start;
        found->lsda = 0;
        if (lsdaEncoding == PeOmit)
            return true;
        return fde.uleb(&augmentationSize) && uint64_t(fde.end - fde.at) >= augmentationSize
               && readEncoded(elf, fde, lsdaEncoding, &found->lsda);
    }
    return false;
}

}

bool refusesExceptions(Elf *elf, GElf_Addr callAddress)
{
    const char *ident = elf ? elf_getident(elf, nullptr) : nullptr;
    if (!ident || elf_kind(elf) != ELF_K_ELF || ident[EI_CLASS] != ELFCLASS64 || ident[EI_DATA] != ELFDATA2LSB)
        return false;
    Fde fde;
    Reader lsda;
    if (!fdeFor(elf, callAddress, &fde) || fde.lsda == 0 || !sectionAt(elf, fde.lsda, &lsda))
        return false;

    uint8_t lpStartEncoding, typeEncoding, siteEncoding;
    uint64_t ignored, tableLength;
    if (!lsda.byte(&lpStartEncoding) || (lpStartEncoding != PeOmit && !readEncoded(elf, lsda, lpStartEncoding, &ignored)))
        return false;
    if (!lsda.byte(&typeEncoding) || (typeEncoding != PeOmit && !lsda.uleb(&ignored)))
        return false;
    // Call-site fields are plain offsets from the function's start: any base would be odd.
    if (!lsda.byte(&siteEncoding) || (siteEncoding & 0xf0) || !lsda.uleb(&tableLength)
        || uint64_t(lsda.end - lsda.at) < tableLength)
        return false;
    lsda.end = lsda.at + tableLength;
    const uint64_t offset = callAddress - fde.start;
    for (int entries = 0; entries < MaxEntries && lsda.at < lsda.end; ++entries) {
        uint64_t start, length, landingPad, action;
        if (!readEncoded(elf, lsda, siteEncoding, &start) || !readEncoded(elf, lsda, siteEncoding, &length)
            || !readEncoded(elf, lsda, siteEncoding, &landingPad) || !lsda.uleb(&action))
            return false;
        if (offset < start)
            return true;
        if (offset - start < length)
            return false;
    }
    return lsda.at == lsda.end;
}
