#include "unwinder.h"

#include "minicore.h"

#include <QHash>
#include <QSet>
#include <cstring>
#include <elf.h>
#include <elfutils/libdwfl.h>

namespace {

struct Walk
{
    const MiniCore *core = nullptr;
    const CoreThread *thread = nullptr;
    bool fromCaller = false;  // the pc lay in no module: the walk starts at its caller
    ThreadStack result;
    QVector<StackAddress> outermost;  // a ring of the last OutermostKept
    int walked = 0;
    int *walkedInCore = nullptr;
};

struct Session
{
    const MiniCore *core = nullptr;
    QVector<Walk> walks;
    int next = 0;  // libdwfl asks for the threads in turn, each walked as it comes
    int walked = 0;
};

}

static bool inModule(const MiniCore &core, quint64 address)
{
    DumpModule module;
    return core.note.moduleAt(address, &module);
}

static pid_t nextThread(Dwfl *, void *arg, void **threadArg)
{
    auto session = static_cast<Session *>(arg);
    if (session->next >= session->walks.size())
        return 0;
    Walk *walk = &session->walks[session->next++];
    *threadArg = walk;
    return pid_t(walk->thread->tid);
}

static bool readMemory(Dwfl *, Dwarf_Addr address, Dwarf_Word *value, void *arg)
{
    quint64 word;
    if (!static_cast<Session *>(arg)->core->read(address, &word))
        return false;
    *value = word;
    return true;
}

static bool setInitialRegisters(Dwfl_Thread *thread, void *threadArg)
{
    Walk *walk = static_cast<Walk *>(threadArg);
    const MiniCore &core = *walk->core;
    const QVector<quint64> &u = walk->thread->registers;
    quint64 pc = core.pc(*walk->thread);
    quint64 sp = core.sp(*walk->thread);
    if (walk->fromCaller && !core.caller(*walk->thread, &pc, &sp))
        return false;
    if (core.machine == EM_X86_64) {
        // DWARF's order of the general registers, from user_regs_struct's.
        static const int fromUser[] = { 10, 12, 11, 5, 13, 14, 4, 19, 9, 8, 7, 6, 3, 2, 1, 0 };
        Dwarf_Word regs[17];
        for (int i = 0; i < 16; ++i)
            regs[i] = u.at(fromUser[i]);
        regs[7] = sp;
        regs[16] = pc;
        return dwfl_thread_state_registers(thread, 0, 17, regs);
    }
    Dwarf_Word regs[32];
    for (int i = 0; i < 31; ++i)
        regs[i] = u.at(i);
    regs[31] = sp;
    if (!dwfl_thread_state_registers(thread, 0, 32, regs))
        return false;
    dwfl_thread_state_register_pc(thread, pc);
    return true;
}

static int onFrame(Dwfl_Frame *state, void *arg)
{
    Walk *walk = static_cast<Walk *>(arg);
    Dwarf_Addr pc;
    bool isActivation = false;
    if (!dwfl_frame_pc(state, &pc, &isActivation))
        return DWARF_CB_ABORT;
    if (walk->walked >= Unwinder::MaxWalked) {
        walk->result.stop = QStringLiteral("the walk stopped at %1 frames").arg(Unwinder::MaxWalked);
        return DWARF_CB_ABORT;
    }
    if (++*walk->walkedInCore > Unwinder::MaxWalkedPerCore) {
        walk->result.stop = QStringLiteral("the walks of all threads reached %1 frames").arg(Unwinder::MaxWalkedPerCore);
        return DWARF_CB_ABORT;
    }
    const bool returnAddress = !isActivation || (walk->fromCaller && walk->walked == 1);
    const StackAddress address{ walk->walked++, pc, returnAddress };
    if (walk->result.stack.size() < Unwinder::InnermostKept) {
        walk->result.stack << address;
    } else {
        if (walk->outermost.size() == Unwinder::OutermostKept)
            walk->outermost.removeFirst();
        walk->outermost << address;
    }
    return DWARF_CB_OK;
}

static int onThread(Dwfl_Thread *thread, void *arg)
{
    auto session = static_cast<Session *>(arg);
    Walk *walk = &session->walks[session->next - 1];
    if (dwfl_thread_getframes(thread, onFrame, walk) == -1 && walk->result.stop.isEmpty())
        walk->result.stop = dwfl_errno() ? QString::fromUtf8(dwfl_errmsg(-1)) : QStringLiteral("the walk ended early");
    return DWARF_CB_OK;
}

// Where the walk ended early (no call-frame information for a module, a stack left out) and
// short of the handler's list, the crashing thread goes on with the return addresses the
// handler found in the process, from the frame where both agree: no report is to come out
// worse than that list.
static void fallBack(const CrashDump &note, Walk *walk)
{
    QVector<StackAddress> &stack = walk->result.stack;
    if (!walk->outermost.isEmpty() || stack.size() >= note.frames.size())
        return;
    int from = -1;
    if (stack.isEmpty()) {
        from = 0;
    } else {
        const int at = note.frames.lastIndexOf(stack.constLast().address);
        if (at >= 0)
            from = at + 1;
    }
    if (from < 0) {
        stack.clear();
        from = 0;
    }
    for (int i = from; i >= 0 && i < note.frames.size() && stack.size() < Unwinder::InnermostKept; ++i) {
        stack << StackAddress{ stack.isEmpty() ? 0 : stack.constLast().index + 1, note.frames.at(i), i > 0 };
        ++walk->result.fromProcess;
    }
}

Unwinder::Unwinder(Symbolizer &symbolizer)
    : m_symbolizer(symbolizer)
{
}

QVector<ThreadStack> Unwinder::unwind(const MiniCore &core)
{
    QHash<quint32, QString> names;
    for (const auto &thread : core.note.threads)
        names.insert(thread.first, thread.second);
    Session session;
    session.core = &core;
    session.walks.resize(core.threads.size());
    for (int i = 0; i < core.threads.size(); ++i) {
        Walk &walk = session.walks[i];
        walk.core = &core;
        walk.thread = &core.threads.at(i);
        walk.walkedInCore = &session.walked;
        walk.result.tid = walk.thread->tid;
        walk.result.name = names.value(walk.thread->tid);
        const quint64 pc = core.pc(*walk.thread);
        // A call through a bad pointer: the pc is the frame, the walk begins at the caller.
        if (!inModule(core, pc)) {
            walk.fromCaller = true;
            walk.result.stack << StackAddress{ 0, pc, false };
            walk.walked = 1;
        }
    }

    Dwfl *dwfl = Symbolizer::newDwfl(true);
    if (dwfl) {
        dwfl_report_begin(dwfl);
        QSet<QByteArray> reported;
        for (const DumpModule &module : core.note.modules) {
            // One module per build ID: the note lists each at its lowest mapping. It spans
            // the mappings of its file that follow one another from there.
            if (module.buildId.isEmpty() || reported.contains(module.buildId))
                continue;
            reported.insert(module.buildId);
            quint64 end = module.loadAddress;
            for (const DumpMapping &mapping : core.note.maps) {
                if (mapping.start == end && mapping.path == module.path)
                    end = mapping.end;
            }
            if (end > module.loadAddress)
                m_symbolizer.reportRange(dwfl, module.buildId, module.loadAddress, end);
        }
        dwfl_report_end(dwfl, nullptr, nullptr);

        // The machine for libdwfl's register rules, from a bare header rather than the
        // hostile file.
        elf_version(EV_CURRENT);
        Elf64_Ehdr header = {};
        memcpy(header.e_ident, ELFMAG, SELFMAG);
        header.e_ident[EI_CLASS] = ELFCLASS64;
        header.e_ident[EI_DATA] = ELFDATA2LSB;
        header.e_ident[EI_VERSION] = EV_CURRENT;
        header.e_type = ET_CORE;
        header.e_machine = Elf64_Half(core.machine);
        header.e_version = EV_CURRENT;
        header.e_ehsize = sizeof header;
        Elf *elf = elf_memory(reinterpret_cast<char *>(&header), sizeof header);
        static const Dwfl_Thread_Callbacks callbacks = {
            nextThread, nullptr, readMemory, setInitialRegisters, nullptr, nullptr,
        };
        if (elf && dwfl_attach_state(dwfl, elf, pid_t(core.threads.constFirst().tid), &callbacks, &session)) {
            dwfl_getthreads(dwfl, onThread, &session);
        } else {
            for (Walk &walk : session.walks)
                walk.result.stop = QStringLiteral("no unwinding: %1").arg(QString::fromUtf8(dwfl_errmsg(-1)));
        }
        dwfl_end(dwfl);
        if (elf)
            elf_end(elf);
    }

    QVector<ThreadStack> stacks;
    for (int i = 0; i < session.walks.size(); ++i) {
        Walk &walk = session.walks[i];
        if (walk.result.stack.isEmpty())
            walk.result.stack << StackAddress{ 0, core.pc(*walk.thread), false };
        if (i == 0)
            fallBack(core.note, &walk);
        if (!walk.outermost.isEmpty())
            walk.result.leftOut = walk.walked - walk.result.stack.size() - walk.outermost.size();
        walk.result.stack += walk.outermost;
        stacks << walk.result;
    }
    return stacks;
}
