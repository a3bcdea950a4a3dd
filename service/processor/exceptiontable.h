#ifndef EXCEPTIONTABLE_H
#define EXCEPTIONTABLE_H

#include <gelf.h>

// Whether C++'s personality routine ends the program rather than unwind through the call at
// `callAddress` (a return address minus one, in the file's own virtual addresses: those its
// symbols use): its function has a call-site table without an entry for that call, which is
// how gcc compiles a noexcept function. False where the file has no such table for it.
bool refusesExceptions(Elf *elf, GElf_Addr callAddress);

#endif
