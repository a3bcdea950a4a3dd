#include "processor.h"

#include "crashdump.h"
#include "reportdatabase.h"
#include "reportstore.h"
#include "signaturerules.h"
#include "symbolizer.h"
#include "minicore.h"
#include "unwinder.h"

#include <QDateTime>
#include <QJsonObject>
#include <utility>

// What the other threads may add to a stored result, in frames: a core can hold 1024 threads.
static const int maxOtherThreadFrames = 16384;

static QString message(const CrashDump &note)
{
    QStringList parts;
    if (!note.message.isEmpty())
        parts << note.message;
    if (!note.exceptionType.isEmpty())
        parts << QStringLiteral("uncaught exception of type %1").arg(demangled(note.exceptionType.constData()));
    return parts.join(QLatin1Char('\n'));
}

Processor::Processor(ReportDatabase &database, const ReportStore &store, Symbolizer &symbolizer,
                     const SignatureRules &rules, const volatile std::sig_atomic_t *stop)
    : m_database(database), m_store(store), m_symbolizer(symbolizer), m_rules(rules), m_stop(stop)
{
}

Processor::Outcome Processor::processNext()
{
    if (m_unwritten) {
        const Unwritten unwritten = *std::exchange(m_unwritten, std::nullopt);
        qInfo("%s: writing its end again", qUtf8Printable(unwritten.claim.id));
        return unwritten.failure.isEmpty() ? finished(unwritten.claim, unwritten.result)
                                           : failed(unwritten.claim, unwritten.failure);
    }
    const std::optional<Claim> claim = m_database.claimNext(m_leaseSeconds);
    if (!claim)
        return m_database.lastError().isEmpty() ? Idle : DatabaseError;
    return process(*claim, false);
}

Processor::Outcome Processor::processAgain(const QString &id)
{
    const std::optional<Claim> claim = m_database.claimAgain(id, m_leaseSeconds);
    // Taken meanwhile by another processor, or no longer finished: not this run's to do.
    if (!claim)
        return m_database.lastError().isEmpty() ? Idle : DatabaseError;
    return process(*claim, true);
}

Processor::Outcome Processor::process(const Claim &claim, bool again)
{
    // Lookups end at half the lease, so that the report is done before another takes it.
    m_symbolizer.beginReport(QDateTime::currentMSecsSinceEpoch() + qint64(m_leaseSeconds) * 500);
    Result result;
    result.ruleVersion = m_rules.version();
    const StoredReport stored = m_store.read(claim.id);
    if (stored.status == StoredReport::Missing && again) {
        // The archive aged out of the store: the frames found then are grouped anew.
        const std::optional<Result> before = m_database.storedResult(claim.id);
        if (!before)
            return failed(claim, stored.error);
        qInfo("%s: archive gone, regrouped from its stored frames", qUtf8Printable(claim.id));
        result = *before;
        result.ruleVersion = m_rules.version();
        // Without frames (no dump, or none in it) there is nothing to group anew.
        if (!result.frames.isEmpty())
            result.signature = m_rules.signature(framesFromJson(result.frames));
    } else if (stored.status != StoredReport::Read) {
        return failed(claim, stored.error);
    } else if (!stored.hasDump) {
        result.signature = SignatureRules::NoDumpSignature;
    } else if (MiniCore::isCore(stored.dump)) {
        const MiniCore core = MiniCore::parse(stored.dump);
        if (!core.error.isEmpty())
            return failed(claim, core.error);
        for (const QString &note : core.note.notes)
            qInfo("%s: %s", qUtf8Printable(claim.id), qUtf8Printable(note));
        const QVector<ThreadStack> stacks = Unwinder(m_symbolizer).unwind(core);
        int otherFrames = 0;
        for (int i = 0; i < stacks.size(); ++i) {
            const ThreadStack &stack = stacks.at(i);
            QVector<Frame> frames = m_symbolizer.symbolize(core.note, stack.stack);
            int leftOut = stack.leftOut;
            if (i == 0) {
                result.frames = framesToJson(frames);
                result.signature = m_rules.signature(frames);
            } else {
                const int room = std::max(0, maxOtherThreadFrames - otherFrames);
                if (frames.size() > room) {
                    leftOut += frames.constLast().index - (room > 0 ? frames.at(room - 1).index : -1);
                    frames.resize(room);
                }
                otherFrames += frames.size();
            }
            QJsonObject thread{
                { QStringLiteral("id"), qint64(stack.tid) },
                { QStringLiteral("name"), stack.name },
                { QStringLiteral("crashed"), i == 0 },
                { QStringLiteral("frames"), framesToJson(frames) },
                { QStringLiteral("left_out"), leftOut },
                { QStringLiteral("from_process"), stack.fromProcess },
            };
            if (!stack.stop.isEmpty())
                thread.insert(QStringLiteral("stop"), stack.stop);
            result.threads.append(thread);
        }
        if (*m_stop)
            return givenBack(claim);
        result.signal = core.note.signal;
        result.address = core.note.address;
        result.message = message(core.note);
        result.capture = core.note.capture;
    } else {
        const CrashDump dump = CrashDump::parse(stored.dump);
        if (!dump.error.isEmpty())
            return failed(claim, dump.error);
        for (const QString &note : dump.notes)
            qInfo("%s: %s", qUtf8Printable(claim.id), qUtf8Printable(note));
        const QVector<Frame> frames = m_symbolizer.symbolize(dump);
        // Stopped during a download: the frames may lack what it would have brought.
        if (*m_stop)
            return givenBack(claim);
        result.signature = m_rules.signature(frames);
        result.signal = dump.signal;
        result.address = dump.address;
        result.frames = framesToJson(frames);
    }
    return finished(claim, result);
}

Processor::Outcome Processor::givenBack(const Claim &claim)
{
    m_database.release(claim);
    qInfo("%s: given back unfinished", qUtf8Printable(claim.id));
    return Released;
}

Processor::Outcome Processor::finished(const Claim &claim, const Result &result)
{
    if (!m_database.finish(claim, result))
        return notWritten(Unwritten{ claim, result, QString() });
    qInfo("%s: done, %s", qUtf8Printable(claim.id), qUtf8Printable(result.signature));
    return Done;
}

Processor::Outcome Processor::failed(const Claim &claim, const QString &reason)
{
    if (!m_database.fail(claim, reason))
        return notWritten(Unwritten{ claim, Result(), reason });
    qInfo("%s: failed, %s", qUtf8Printable(claim.id), qUtf8Printable(reason));
    return Failed;
}

// A claim taken by another processor is its to finish. Otherwise the database went away: the
// end is written once it is back, rather than the report waiting out its lease and losing an
// attempt to the outage.
Processor::Outcome Processor::notWritten(const Unwritten &unwritten)
{
    qWarning("%s: not finished: %s", qUtf8Printable(unwritten.claim.id), qUtf8Printable(m_database.lastError()));
    if (m_database.claimLost())
        return Lost;
    m_unwritten = unwritten;
    return DatabaseError;
}
