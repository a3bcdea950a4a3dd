#include "symbolizer.h"

#include "crashdump.h"
#include "exceptiontable.h"

#include <QDateTime>
#include <QFile>
#include <cxxabi.h>
#include <dwarf.h>
#include <elfutils/debuginfod.h>
#include <elfutils/libdwelf.h>
#include <elfutils/libdwfl.h>
#include <limits>
#include <fcntl.h>
#include <unistd.h>

// Bounds on what stays in memory between reports: open modules, looked-up addresses, misses.
static const int maxModules = 64;
static const int maxLookups = 200000;
static const int maxMisses = 100000;
static const int maxFound = 4096;

struct Symbolizer::Module
{
    QByteArray buildId;
    Dwfl *dwfl = nullptr;
    Dwfl_Module *module = nullptr;
    // The same file again, never with a debug file: its own symbol tables.
    Dwfl *ownDwfl = nullptr;
    Dwfl_Module *own = nullptr;
    quint64 start = 0;  // where the ELF header lies in this module's own address space
    quint64 lastUse = 0;

    ~Module()
    {
        if (dwfl)
            dwfl_end(dwfl);
        if (ownDwfl)
            dwfl_end(ownDwfl);
    }
};

static bool hasBuildId(Elf *elf, const QByteArray &buildId)
{
    const void *bits = nullptr;
    const ssize_t length = elf ? dwelf_elf_gnu_build_id(elf, &bits) : -1;
    return length > 0 && QByteArray(static_cast<const char *>(bits), int(length)).toHex() == buildId;
}

// The descriptor when the file holds the build ID it was found by, else -1 (and it is closed):
// a file filed under the wrong name would give wrong answers, worse than none.
static int checked(int fd, const QByteArray &buildId, const QByteArray &path)
{
    if (fd < 0)
        return -1;
    Elf *elf = elf_begin(fd, ELF_C_READ_MMAP, nullptr);
    const bool right = hasBuildId(elf, buildId);
    elf_end(elf);
    if (right)
        return fd;
    qWarning("%s does not have the build ID it is filed under", path.constData());
    close(fd);
    return -1;
}

// No path is ever looked up by name: a module is reported from the file found by its build
// ID, and its debug file, too, comes by that ID alone (the module's name is the ID).
static int findNoElf(Dwfl_Module *, void **, const char *, Dwarf_Addr, char **, Elf **)
{
    return -1;
}

static int findDebugFile(Dwfl_Module *, void **userdata, const char *name, Dwarf_Addr, const char *,
                         const char *, GElf_Word, char **)
{
    auto symbolizer = static_cast<Symbolizer *>(*userdata);
    QByteArray path;
    const QByteArray buildId(name);
    return checked(symbolizer ? symbolizer->openFile(buildId, Symbolizer::DebugFile, &path) : -1, buildId, path);
}

// A module reported by its address range alone gets its file when libdwfl first needs it, by
// the build ID it is named for; libdwfl then checks the ID it was told.
static int findElf(Dwfl_Module *, void **userdata, const char *name, Dwarf_Addr, char **, Elf **elf)
{
    auto symbolizer = static_cast<Symbolizer *>(*userdata);
    QByteArray path;
    *elf = nullptr;
    return symbolizer ? symbolizer->openModuleFile(QByteArray(name), &path) : -1;
}

static const Dwfl_Callbacks callbacks = {
    findNoElf, findDebugFile, dwfl_offline_section_address, nullptr,
};

static const Dwfl_Callbacks lazyCallbacks = {
    findElf, findDebugFile, dwfl_offline_section_address, nullptr,
};

static int findNoDebugFile(Dwfl_Module *, void **, const char *, Dwarf_Addr, const char *, const char *, GElf_Word,
                           char **)
{
    return -1;
}

static const Dwfl_Callbacks ownCallbacks = {
    findNoElf, findNoDebugFile, dwfl_offline_section_address, nullptr,
};

Dwfl *Symbolizer::newDwfl(bool lazy)
{
    return dwfl_begin(lazy ? &lazyCallbacks : &callbacks);
}

bool Symbolizer::reportRange(Dwfl *dwfl, const QByteArray &buildId, quint64 start, quint64 end)
{
    Dwfl_Module *module = dwfl_report_module(dwfl, buildId.constData(), start, end);
    if (!module)
        return false;
    const QByteArray bits = QByteArray::fromHex(buildId);
    dwfl_module_report_build_id(module, reinterpret_cast<const unsigned char *>(bits.constData()), size_t(bits.size()), 0);
    void **userdata = nullptr;
    dwfl_module_info(module, &userdata, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    *userdata = this;
    return true;
}

Dwfl_Module *Symbolizer::reportModule(Dwfl *dwfl, const QByteArray &buildId, quint64 base)
{
    QByteArray path;
    const int fd = checked(openModuleFile(buildId, &path), buildId, path);
    if (fd < 0)
        return nullptr;
    // Consumes fd.
    Dwfl_Module *module = dwfl_report_elf(dwfl, buildId.constData(), path.constData(), fd, base, false);
    if (!module)
        return nullptr;
    void **userdata = nullptr;
    dwfl_module_info(module, &userdata, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    *userdata = this;
    return module;
}

int Symbolizer::debuginfodProgress(debuginfod_client *client, long, long)
{
    auto self = static_cast<const Symbolizer *>(debuginfod_get_user_data(client));
    return (self->m_cancel && *self->m_cancel) || QDateTime::currentMSecsSinceEpoch() > self->m_deadlineMs ? 1 : 0;
}

QString demangled(const char *name)
{
    int status = 0;
    char *text = abi::__cxa_demangle(name, nullptr, nullptr, &status);
    if (status != 0 || !text)
        return QString::fromUtf8(name);
    const QString result = QString::fromUtf8(text);
    free(text);
    return result;
}

static QString dieName(Dwarf_Die *die)
{
    Dwarf_Attribute attr;
    const char *name = dwarf_formstring(dwarf_attr_integrate(die, DW_AT_linkage_name, &attr));
    if (!name)
        name = dwarf_formstring(dwarf_attr_integrate(die, DW_AT_MIPS_linkage_name, &attr));
    if (name)
        return demangled(name);
    name = dwarf_formstring(dwarf_attr_integrate(die, DW_AT_name, &attr));
    return name ? QString::fromUtf8(name) : QString();
}

static QString symbolAt(Dwfl_Module *module, quint64 address)
{
    GElf_Off offset;
    GElf_Sym symbol;
    const char *name = dwfl_module_addrinfo(module, address, &offset, &symbol, nullptr, nullptr, nullptr);
    return name ? demangled(name) : QString();
}

// clang writes .debug_aranges only on request (-gdwarf-aranges), so a client that builds the
// crash handler with them and its own code without has a file where they cover some units
// only. For an address in any other unit the lookup gives no unit, or the unit before it: the
// units' own address ranges then tell which one holds the address.
static Dwarf_Die *unitHolding(Dwfl_Module *module, Dwarf_Addr address, Dwarf_Addr *bias)
{
    Dwarf_Die *cu = dwfl_module_addrdie(module, address, bias);
    if (cu && dwarf_haspc(cu, address - *bias) > 0)
        return cu;
    for (Dwarf_Die *unit = nullptr; (unit = dwfl_module_nextcu(module, unit, bias)) != nullptr;) {
        if (dwarf_haspc(unit, address - *bias) > 0)
            return unit;
    }
    return nullptr;
}

Symbolizer::Symbolizer(const QStringList &symbolDirs)
    : m_symbolDirs(symbolDirs)
{
    if (!qEnvironmentVariableIsEmpty("DEBUGINFOD_URLS")) {
        // libdebuginfod waits 90 s for a silent server and a whole download unbounded by
        // default: a server that hangs would hold each report for that long.
        if (!qEnvironmentVariableIsSet("DEBUGINFOD_TIMEOUT"))
            qputenv("DEBUGINFOD_TIMEOUT", "10");
        if (!qEnvironmentVariableIsSet("DEBUGINFOD_MAXTIME"))
            qputenv("DEBUGINFOD_MAXTIME", "60");
        m_debuginfod = debuginfod_begin();
        if (m_debuginfod) {
            debuginfod_set_progressfn(m_debuginfod, debuginfodProgress);
            debuginfod_set_user_data(m_debuginfod, this);
        }
    }
    beginReport(std::numeric_limits<qint64>::max());
}

Symbolizer::~Symbolizer()
{
    m_modules.clear();
    if (m_debuginfod)
        debuginfod_end(m_debuginfod);
}

QVector<Frame> Symbolizer::symbolize(const CrashDump &dump)
{
    QVector<StackAddress> stack;
    for (int i = 0; i < dump.frames.size(); ++i)
        stack << StackAddress{ i, dump.frames.at(i), i > 0 };
    return symbolize(dump, stack);
}

QVector<Frame> Symbolizer::symbolize(const CrashDump &dump, const QVector<StackAddress> &stack)
{
    QVector<Frame> frames;
    for (const StackAddress &address : stack) {
        Frame frame;
        frame.index = address.index;
        frame.address = address.address;
        // A return address: the call lies just before.
        const quint64 at = address.returnAddress && frame.address > 0 ? frame.address - 1 : frame.address;
        Lookup found;
        DumpModule dumpModule;
        if (dump.moduleAt(at, &dumpModule)) {
            frame.hasModule = true;
            frame.module = dumpModule.name();
            frame.offset = frame.address - dumpModule.loadAddress;
            frame.buildId = dumpModule.buildId;
            if (Module *m = dumpModule.buildId.isEmpty() ? nullptr : module(dumpModule.buildId))
                found = lookup(m, m->start + (at - dumpModule.loadAddress));
        }
        frame.symbol = found.symbol;
        frame.refusesExceptions = found.refusesExceptions;
        const QVector<Location> &locations = found.locations;
        if (locations.isEmpty())
            frames << frame;
        for (int j = 0; j < locations.size(); ++j) {
            Frame line = frame;
            line.function = locations.at(j).function;
            line.file = locations.at(j).file;
            line.line = locations.at(j).line;
            line.fromSymbolTable = locations.at(j).fromSymbolTable;
            line.inlined = j + 1 < locations.size();
            frames << line;
        }
    }
    return frames;
}

void Symbolizer::setCancelFlag(const volatile std::sig_atomic_t *flag)
{
    m_cancel = flag;
}

void Symbolizer::beginReport(qint64 deadlineMs)
{
    m_lookupsLeft = LookupBudget;
    m_deadlineMs = deadlineMs;
}

int Symbolizer::openFile(const QByteArray &buildId, FileKind kind, QByteArray *path)
{
    const QString relative = QStringLiteral("/.build-id/%1/%2%3")
                                     .arg(QString::fromLatin1(buildId.left(2)), QString::fromLatin1(buildId.mid(2)),
                                          kind == DebugFile ? QStringLiteral(".debug") : QString());
    for (const QString &dir : m_symbolDirs) {
        *path = QFile::encodeName(dir + relative);
        const int fd = open(path->constData(), O_RDONLY | O_CLOEXEC);
        if (fd >= 0)
            return fd;
    }
    const auto key = qMakePair(buildId, int(kind));
    // Found before: debuginfod's own cache has it, and asking again would count as a lookup.
    auto found = m_found.constFind(key);
    if (found != m_found.constEnd()) {
        *path = found.value();
        const int fd = open(path->constData(), O_RDONLY | O_CLOEXEC);
        if (fd >= 0)
            return fd;
        m_found.remove(key);
    }
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    auto missed = m_misses.constFind(key);
    if (missed != m_misses.constEnd() && now - missed.value() < MissSeconds)
        return -1;
    if (!m_debuginfod || (m_cancel && *m_cancel) || m_lookupsLeft <= 0
        || QDateTime::currentMSecsSinceEpoch() > m_deadlineMs)
        return -1;
    --m_lookupsLeft;
    char *cached = nullptr;
    const auto id = reinterpret_cast<const unsigned char *>(buildId.constData());
    const int fd = kind == DebugFile ? debuginfod_find_debuginfo(m_debuginfod, id, 0, &cached)
                                     : debuginfod_find_executable(m_debuginfod, id, 0, &cached);
    if (fd >= 0) {
        *path = cached;
        free(cached);
        if (m_found.size() >= maxFound)
            m_found.clear();
        m_found.insert(key, *path);
        return fd;
    }
    free(cached);
    // Only a server's answer is a miss: a lookup cut short says nothing about the file.
    if (fd != -ENOENT)
        return -1;
    if (m_misses.size() >= maxMisses) {
        for (auto it = m_misses.begin(); it != m_misses.end();) {
            if (now - it.value() >= MissSeconds)
                it = m_misses.erase(it);
            else
                ++it;
        }
        if (m_misses.size() >= maxMisses)
            m_misses.clear();
    }
    m_misses.insert(key, now);
    return -1;
}

int Symbolizer::openModuleFile(const QByteArray &buildId, QByteArray *path)
{
    const int fd = openFile(buildId, Executable, path);
    return fd >= 0 ? fd : openFile(buildId, DebugFile, path);
}

Symbolizer::Module *Symbolizer::module(const QByteArray &buildId)
{
    auto it = m_modules.find(buildId);
    if (it == m_modules.end()) {
        std::shared_ptr<Module> loaded = load(buildId);
        // Nothing found: the miss is remembered apart, and no module is evicted for it.
        if (!loaded->module)
            return nullptr;
        if (m_modules.size() >= maxModules) {
            auto oldest = m_modules.begin();
            for (auto o = m_modules.begin(); o != m_modules.end(); ++o) {
                if (o.value()->lastUse < oldest.value()->lastUse)
                    oldest = o;
            }
            m_modules.erase(oldest);
        }
        loaded->buildId = buildId;
        it = m_modules.insert(buildId, loaded);
    }
    it.value()->lastUse = ++m_useCount;
    return it.value().get();
}

// From the executable where there is one, whose symbol tables name what no debug file does;
// its debug file then comes through findDebugFile. Otherwise from the debug file alone. The
// module's own address space: only offsets from its start matter.
std::shared_ptr<Symbolizer::Module> Symbolizer::load(const QByteArray &buildId)
{
    auto m = std::make_shared<Module>();
    m->dwfl = newDwfl();
    if (!m->dwfl)
        return m;
    dwfl_report_begin(m->dwfl);
    Dwfl_Module *module = reportModule(m->dwfl, buildId, 0);
    dwfl_report_end(m->dwfl, nullptr, nullptr);
    if (!module)
        return m;
    Dwarf_Addr start;
    dwfl_module_info(module, nullptr, &start, nullptr, nullptr, nullptr, nullptr, nullptr);
    m->module = module;
    m->start = start;
    m->ownDwfl = dwfl_begin(&ownCallbacks);
    if (m->ownDwfl) {
        dwfl_report_begin(m->ownDwfl);
        m->own = reportModule(m->ownDwfl, buildId, 0);
        dwfl_report_end(m->ownDwfl, nullptr, nullptr);
    }
    return m;
}

Symbolizer::Lookup Symbolizer::lookup(Module *m, quint64 address)
{
    const auto key = qMakePair(m->buildId, address);
    auto cached = m_lookups.constFind(key);
    if (cached != m_lookups.constEnd())
        return cached.value();

    Lookup result;
    QVector<Location> &locations = result.locations;
    QString file;
    int line = 0;
    Dwarf_Addr bias = 0;
    Dwarf_Die *cu = unitHolding(m->module, address, &bias);
    if (Dwarf_Line *source = cu ? dwarf_getsrc_die(cu, address - bias) : nullptr) {
        int lineNumber = 0;
        const char *name = dwarf_linesrc(source, nullptr, nullptr);
        if (name && dwarf_lineno(source, &lineNumber) == 0) {
            file = QString::fromUtf8(name);
            line = lineNumber;
        }
    }
    Dwarf_Die *scopes = nullptr;
    const int count = cu ? dwarf_getscopes(cu, address - bias, &scopes) : 0;
    if (count > 0) {
        // The innermost scope's own chain of parents: inlined calls, up to the function.
        Dwarf_Die innermost = scopes[0];
        free(scopes);
        scopes = nullptr;
        const int depth = dwarf_getscopes_die(&innermost, &scopes);
        Dwarf_Files *files = nullptr;
        dwarf_getsrcfiles(cu, &files, nullptr);
        for (int i = 0; i < depth; ++i) {
            const int tag = dwarf_tag(&scopes[i]);
            if (tag != DW_TAG_inlined_subroutine && tag != DW_TAG_subprogram && tag != DW_TAG_entry_point)
                continue;
            locations << Location{ dieName(&scopes[i]), file, line };
            if (tag != DW_TAG_inlined_subroutine)
                break;
            // The function it was inlined into is at the call's line.
            Dwarf_Attribute attr;
            Dwarf_Word value;
            file.clear();
            line = 0;
            if (files && dwarf_formudata(dwarf_attr(&scopes[i], DW_AT_call_file, &attr), &value) == 0) {
                if (const char *name = dwarf_filesrc(files, value, nullptr, nullptr))
                    file = QString::fromUtf8(name);
            }
            if (dwarf_formudata(dwarf_attr(&scopes[i], DW_AT_call_line, &attr), &value) == 0)
                line = int(value);
        }
    }
    free(scopes);
    // No DWARF for the address: the symbol table still names the function.
    if (locations.isEmpty() || locations.last().function.isEmpty()) {
        if (const QString name = symbolAt(m->module, address); !name.isEmpty()) {
            if (locations.isEmpty())
                locations << Location{ name, file, line, file.isEmpty() };
            else
                locations.last().function = name;
        }
    }
    if (m->own) {
        GElf_Addr ownBias = 0;
        Elf *elf = dwfl_module_getelf(m->own, &ownBias);
        result.symbol = symbolAt(m->own, address);
        result.refusesExceptions = elf && refusesExceptions(elf, address - ownBias);
    }
    if (m_lookups.size() >= maxLookups)
        m_lookups.clear();
    m_lookups.insert(key, result);
    return result;
}
