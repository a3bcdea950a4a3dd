#include "symbolizer.h"

#include "crashdump.h"

#include <QDateTime>
#include <QFile>
#include <cxxabi.h>
#include <dwarf.h>
#include <elfutils/debuginfod.h>
#include <elfutils/libdwfl.h>
#include <fcntl.h>
#include <unistd.h>

// Bounds on what stays in memory between reports: open debug files and looked-up addresses.
static const int maxModules = 64;
static const int maxLookups = 200000;
// A build ID with no debug file is asked for again after this long: its file may come later.
static const qint64 missingRetrySeconds = 600;

struct Symbolizer::Module
{
    QByteArray buildId;
    Dwfl *dwfl = nullptr;
    Dwfl_Module *module = nullptr;
    quint64 start = 0;  // where the ELF header lies in this module's own address space
    qint64 missingSince = 0;
    quint64 lastUse = 0;

    ~Module()
    {
        if (dwfl)
            dwfl_end(dwfl);
    }
};

// No path is ever looked up by name: a module is reported from the debug file found by its
// build ID, and if that holds no DWARF, there is nothing else to find.
static int findNoElf(Dwfl_Module *, void **, const char *, Dwarf_Addr, char **, Elf **)
{
    return -1;
}

static int findNoDebuginfo(Dwfl_Module *, void **, const char *, Dwarf_Addr, const char *,
                           const char *, GElf_Word, char **)
{
    return -1;
}

static const Dwfl_Callbacks callbacks = {
    findNoElf, findNoDebuginfo, dwfl_offline_section_address, nullptr,
};

static int debuginfodProgress(debuginfod_client *client, long, long)
{
    auto cancel = static_cast<const volatile std::sig_atomic_t *>(debuginfod_get_user_data(client));
    return cancel && *cancel ? 1 : 0;
}

static QString demangled(const char *name)
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
        m_debuginfod = debuginfod_begin();
        if (m_debuginfod)
            debuginfod_set_progressfn(m_debuginfod, debuginfodProgress);
    }
}

Symbolizer::~Symbolizer()
{
    m_modules.clear();
    if (m_debuginfod)
        debuginfod_end(m_debuginfod);
}

QVector<Frame> Symbolizer::symbolize(const CrashDump &dump)
{
    QVector<Frame> frames;
    for (int i = 0; i < dump.frames.size(); ++i) {
        Frame frame;
        frame.index = i;
        frame.address = dump.frames.at(i);
        // Frames after the first are return addresses: the call lies just before.
        const quint64 at = i > 0 && frame.address > 0 ? frame.address - 1 : frame.address;
        QVector<Location> locations;
        DumpModule dumpModule;
        if (dump.moduleAt(at, &dumpModule)) {
            frame.hasModule = true;
            frame.module = dumpModule.name();
            frame.offset = frame.address - dumpModule.loadAddress;
            frame.buildId = dumpModule.buildId;
            if (Module *m = dumpModule.buildId.isEmpty() ? nullptr : module(dumpModule.buildId))
                locations = lookup(m, m->start + (at - dumpModule.loadAddress));
        }
        if (locations.isEmpty())
            frames << frame;
        for (int j = 0; j < locations.size(); ++j) {
            Frame line = frame;
            line.function = locations.at(j).function;
            line.file = locations.at(j).file;
            line.line = locations.at(j).line;
            line.inlined = j + 1 < locations.size();
            frames << line;
        }
    }
    return frames;
}

void Symbolizer::setCancelFlag(const volatile std::sig_atomic_t *flag)
{
    m_cancel = flag;
    if (m_debuginfod)
        debuginfod_set_user_data(m_debuginfod, const_cast<std::sig_atomic_t *>(flag));
}

Symbolizer::Module *Symbolizer::module(const QByteArray &buildId)
{
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    auto it = m_modules.find(buildId);
    if (it == m_modules.end() || (!it.value()->module && now - it.value()->missingSince > missingRetrySeconds)) {
        if (it == m_modules.end() && m_modules.size() >= maxModules) {
            auto oldest = m_modules.begin();
            for (auto o = m_modules.begin(); o != m_modules.end(); ++o) {
                if (o.value()->lastUse < oldest.value()->lastUse)
                    oldest = o;
            }
            m_modules.erase(oldest);
        }
        std::shared_ptr<Module> loaded = load(buildId);
        loaded->buildId = buildId;
        loaded->missingSince = now;
        it = m_modules.insert(buildId, loaded);
    }
    it.value()->lastUse = ++m_useCount;
    return it.value()->module ? it.value().get() : nullptr;
}

std::shared_ptr<Symbolizer::Module> Symbolizer::load(const QByteArray &buildId)
{
    auto m = std::make_shared<Module>();
    const QString relative = QStringLiteral("/.build-id/%1/%2.debug")
                                     .arg(QString::fromLatin1(buildId.left(2)), QString::fromLatin1(buildId.mid(2)));
    QByteArray path;
    int fd = -1;
    for (const QString &dir : m_symbolDirs) {
        path = QFile::encodeName(dir + relative);
        fd = open(path.constData(), O_RDONLY | O_CLOEXEC);
        if (fd >= 0)
            break;
    }
    if (fd < 0 && m_debuginfod && !(m_cancel && *m_cancel)) {
        char *cached = nullptr;
        fd = debuginfod_find_debuginfo(m_debuginfod, reinterpret_cast<const unsigned char *>(buildId.constData()), 0, &cached);
        if (fd >= 0)
            path = cached;
        free(cached);
    }
    if (fd < 0)
        return m;

    m->dwfl = dwfl_begin(&callbacks);
    if (!m->dwfl) {
        close(fd);
        return m;
    }
    dwfl_report_begin(m->dwfl);
    // Consumes fd. The module's own address space: only offsets from its start matter.
    Dwfl_Module *module = dwfl_report_elf(m->dwfl, buildId.constData(), path.constData(), fd, 0, false);
    dwfl_report_end(m->dwfl, nullptr, nullptr);
    const unsigned char *bits = nullptr;
    GElf_Addr vaddr;
    const int length = module ? dwfl_module_build_id(module, &bits, &vaddr) : -1;
    // A file filed under the wrong name would give wrong answers, worse than none.
    if (length <= 0 || QByteArray(reinterpret_cast<const char *>(bits), length).toHex() != buildId) {
        qWarning("Debug file %s does not have the build ID it is filed under", path.constData());
        return m;
    }
    Dwarf_Addr start;
    dwfl_module_info(module, nullptr, &start, nullptr, nullptr, nullptr, nullptr, nullptr);
    m->module = module;
    m->start = start;
    return m;
}

QVector<Symbolizer::Location> Symbolizer::lookup(Module *m, quint64 address)
{
    const auto key = qMakePair(m->buildId, address);
    auto cached = m_lookups.constFind(key);
    if (cached != m_lookups.constEnd())
        return cached.value();

    QVector<Location> locations;
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
        GElf_Off offset;
        GElf_Sym symbol;
        if (const char *name = dwfl_module_addrinfo(m->module, address, &offset, &symbol, nullptr, nullptr, nullptr)) {
            if (locations.isEmpty())
                locations << Location{ demangled(name), file, line };
            else
                locations.last().function = demangled(name);
        }
    }
    if (m_lookups.size() >= maxLookups)
        m_lookups.clear();
    m_lookups.insert(key, locations);
    return locations;
}
