#include "processor.h"
#include "reportdatabase.h"
#include "reportstore.h"
#include "signaturerules.h"
#include "symbolizer.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QJsonDocument>
#include <algorithm>
#include <cstdio>
#include <poll.h>
#include <unistd.h>

enum { ExitFailure = 1, ExitUsage = 2 };

static volatile std::sig_atomic_t stopRequested = 0;

static void requestStop(int)
{
    stopRequested = 1;
}

static void installStopHandler()
{
    struct sigaction action = {};
    action.sa_handler = requestStop;
    sigemptyset(&action.sa_mask);
    // No SA_RESTART: a wait in progress ends at once.
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
}

static void idle(int seconds)
{
    for (int left = seconds * 10; left > 0 && !stopRequested; --left)
        poll(nullptr, 0, 100);
}

static QString hostName()
{
    char name[256] = {};
    gethostname(name, sizeof name - 1);
    return QString::fromLocal8Bit(name).section(QLatin1Char('.'), 0, 0);
}

static int usageError(const QString &message)
{
    std::fprintf(stderr, "velmora-processor: %s\nTry velmora-processor --help.\n", qUtf8Printable(message));
    return ExitUsage;
}

static int failure(const QString &message)
{
    std::fprintf(stderr, "velmora-processor: %s\n", qUtf8Printable(message));
    return ExitFailure;
}

// While the database is away (a restart, a failover, a lost connection), the processor tries
// again after 1 s, doubling up to this, and says so once when it goes and once when it is back.
enum { DatabaseRetryMaxSeconds = 30 };

static int work(Processor &processor, ReportDatabase &database, bool drain, int pollSeconds)
{
    int done = 0, failed = 0;
    int retrySeconds = 0;
    while (!stopRequested) {
        const Processor::Outcome outcome = processor.processNext();
        if (outcome != Processor::DatabaseError && retrySeconds > 0) {
            qWarning("Database: back; processing again");
            retrySeconds = 0;
        }
        switch (outcome) {
        case Processor::Done: ++done; break;
        case Processor::Failed: ++failed; break;
        case Processor::Released:
        case Processor::Lost: break;
        case Processor::Idle:
            if (drain) {
                qInfo("%d reports done, %d failed", done, failed);
                return 0;
            }
            idle(pollSeconds);
            break;
        case Processor::DatabaseError:
            if (drain)
                return failure(database.lastError());
            // The database may be restarting: try again with a fresh connection.
            if (retrySeconds == 0)
                qWarning("Database: %s; trying again, at most every %d s, until it is back",
                         qUtf8Printable(database.lastError().simplified()), int(DatabaseRetryMaxSeconds));
            retrySeconds = retrySeconds == 0 ? 1 : std::min(2 * retrySeconds, int(DatabaseRetryMaxSeconds));
            idle(retrySeconds);
            while (!stopRequested && !database.reopen()) {
                retrySeconds = std::min(2 * retrySeconds, int(DatabaseRetryMaxSeconds));
                idle(retrySeconds);
            }
            break;
        }
    }
    qInfo("Stopped; %d reports done, %d failed", done, failed);
    return 0;
}

static int reprocess(Processor &processor, ReportDatabase &database, qint64 since)
{
    int done = 0, failed = 0;
    qint64 afterTime = -1;
    QString afterId;
    for (;;) {
        const auto batch = database.finishedSince(since, afterTime, afterId, 500);
        if (!database.lastError().isEmpty())
            return failure(database.lastError());
        if (batch.isEmpty())
            break;
        for (const auto &report : batch) {
            if (stopRequested) {
                qInfo("Stopped after %d reports; go on with --since %s", done + failed,
                      qUtf8Printable(QDateTime::fromSecsSinceEpoch(report.first, Qt::UTC).toString(QStringLiteral("yyyy-MM-dd"))));
                return ExitFailure;
            }
            const Processor::Outcome outcome = processor.processAgain(report.second);
            if (outcome == Processor::DatabaseError)
                return failure(database.lastError());
            done += outcome == Processor::Done;
            failed += outcome == Processor::Failed;
            afterTime = report.first;
            afterId = report.second;
        }
    }
    qInfo("Reprocessed %d reports: %d done, %d failed", done + failed, done, failed);
    return 0;
}

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("velmora-processor"));
    qSetMessagePattern(QStringLiteral("%{message}"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
            "Symbolizes the crash reports that the upload endpoint stores and groups them by signature.\n"
            "Works on waiting reports until stopped (SIGTERM, SIGINT); --reprocess processes the finished\n"
            "reports again and --show prints one as JSON. DEBUGINFOD_URLS names debuginfod servers to ask\n"
            "for executables and debug files that no --symbols folder has. Exit codes: 0 done, 1 failed, 2 bad command line."));
    const QCommandLineOption help(QStringList{ QStringLiteral("h"), QStringLiteral("help") }, QStringLiteral("Shows this help."));
    const QCommandLineOption db(QStringLiteral("db"), QStringLiteral("The database: sqlite:/abs/path or postgresql://user@host/name."), QStringLiteral("URL"));
    const QCommandLineOption store(QStringLiteral("store"), QStringLiteral("The archive store, the service's DATA/raw."), QStringLiteral("DIR"));
    const QCommandLineOption worker(QStringLiteral("worker"), QStringLiteral("This processor's name in the reports it claims (default: host-pid)."), QStringLiteral("NAME"));
    const QCommandLineOption symbols(QStringLiteral("symbols"), QStringLiteral("A folder with executables in .build-id/ab/cdef… and debug files in .build-id/ab/cdef….debug; repeatable."), QStringLiteral("DIR"));
    const QCommandLineOption rules(QStringLiteral("rules"), QStringLiteral("The folder of the signature lists."), QStringLiteral("DIR"),
                                   QStringLiteral(VELMORA_SIGNATURE_DIR));
    const QCommandLineOption lease(QStringLiteral("lease"), QStringLiteral("Seconds a claim on a report lasts (default 300)."), QStringLiteral("SECONDS"), QStringLiteral("300"));
    const QCommandLineOption pollOption(QStringLiteral("poll"), QStringLiteral("Seconds between looks for new reports (default 1)."), QStringLiteral("SECONDS"), QStringLiteral("1"));
    const QCommandLineOption drain(QStringLiteral("drain"), QStringLiteral("Processes the waiting reports, then exits."));
    const QCommandLineOption again(QStringLiteral("reprocess"), QStringLiteral("Processes the finished reports again with the current lists and debug files, then exits."));
    const QCommandLineOption since(QStringLiteral("since"), QStringLiteral("With --reprocess: only reports received on or after the day (UTC)."), QStringLiteral("YYYY-MM-DD"));
    const QCommandLineOption show(QStringLiteral("show"), QStringLiteral("Prints the report and its processed result as JSON."), QStringLiteral("ID"));
    parser.addOptions({ help, db, store, worker, symbols, rules, lease, pollOption, drain, again, since, show });

    if (!parser.parse(QCoreApplication::arguments()))
        return usageError(parser.errorText());
    if (parser.isSet(help)) {
        std::fputs(qUtf8Printable(parser.helpText().replace(QCoreApplication::arguments().constFirst(), QLatin1String("velmora-processor")).replace(QLatin1String("[options]"),
                   QLatin1String("--db URL --store DIR [--worker NAME] [--symbols DIR]... [--drain]\n"
                                 "       velmora-processor --db URL --store DIR --reprocess [--since YYYY-MM-DD]\n"
                                 "       velmora-processor --db URL --show ID"))), stdout);
        return 0;
    }
    if (!parser.positionalArguments().isEmpty())
        return usageError(QStringLiteral("unexpected argument %1").arg(parser.positionalArguments().constFirst()));
    if (!parser.isSet(db))
        return usageError(QStringLiteral("--db URL is needed"));
    if (parser.isSet(show) && (parser.isSet(again) || parser.isSet(drain)))
        return usageError(QStringLiteral("--show goes alone with --db"));
    if (parser.isSet(again) && parser.isSet(drain))
        return usageError(QStringLiteral("--reprocess and --drain exclude each other"));
    if (parser.isSet(since) && !parser.isSet(again))
        return usageError(QStringLiteral("--since goes with --reprocess"));
    bool ok = true;
    const int leaseSeconds = parser.value(lease).toInt(&ok);
    if (!ok || leaseSeconds < 1)
        return usageError(QStringLiteral("--lease takes a whole number of seconds, 1 or more"));
    const int pollSeconds = parser.value(pollOption).toInt(&ok);
    if (!ok || pollSeconds < 1)
        return usageError(QStringLiteral("--poll takes a whole number of seconds, 1 or more"));
    qint64 sinceTime = 0;
    if (parser.isSet(since)) {
        const QDate day = QDate::fromString(parser.value(since), QStringLiteral("yyyy-MM-dd"));
        if (!day.isValid())
            return usageError(QStringLiteral("--since takes a day as YYYY-MM-DD, not %1").arg(parser.value(since)));
        sinceTime = QDateTime(day, QTime(0, 0), Qt::UTC).toSecsSinceEpoch();
    }
    if (!parser.isSet(show) && !parser.isSet(store))
        return usageError(QStringLiteral("--store DIR is needed"));
    for (const QString &dir : parser.values(symbols)) {
        if (!QFileInfo(dir).isDir())
            return usageError(QStringLiteral("--symbols %1 is no folder").arg(dir));
    }
    const QString workerName = parser.isSet(worker)
            ? parser.value(worker)
            : QStringLiteral("%1-%2").arg(hostName()).arg(QCoreApplication::applicationPid());

    ReportDatabase database(workerName);
    QString error;
    if (!database.open(parser.value(db), &error))
        return failure(error);
    if (parser.isSet(show)) {
        const std::optional<QJsonObject> report = database.report(parser.value(show));
        if (!report)
            return failure(database.lastError().isEmpty() ? QStringLiteral("no report %1").arg(parser.value(show)) : database.lastError());
        std::fputs(QJsonDocument(*report).toJson(QJsonDocument::Indented).constData(), stdout);
        return 0;
    }

    SignatureRules signatureRules;
    if (!signatureRules.load(parser.value(rules), &error))
        return failure(error);
    if (!QFileInfo(parser.value(store)).isDir())
        return failure(QStringLiteral("the store %1 is no folder").arg(parser.value(store)));
    const ReportStore reportStore(parser.value(store));
    Symbolizer symbolizer(parser.values(symbols));
    installStopHandler();
    symbolizer.setCancelFlag(&stopRequested);
    Processor processor(database, reportStore, symbolizer, signatureRules, &stopRequested);
    processor.setLeaseSeconds(leaseSeconds);

    if (parser.isSet(again))
        return reprocess(processor, database, sinceTime);
    qInfo("Processor %s, signature rules version %d", qUtf8Printable(workerName), signatureRules.version());
    return work(processor, database, parser.isSet(drain), pollSeconds);
}
