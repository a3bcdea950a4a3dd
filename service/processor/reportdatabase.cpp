#include "reportdatabase.h"

#include "databaseurl.h"

#include <QDateTime>
#include <QFileInfo>
#include <QJsonDocument>
#include <QSqlError>
#include <QSqlQuery>

static qint64 now()
{
    return QDateTime::currentSecsSinceEpoch();
}

static QString day(qint64 seconds)
{
    return QDateTime::fromSecsSinceEpoch(seconds, Qt::UTC).toString(QStringLiteral("yyyy-MM-dd"));
}

static QVariant textOrNull(const QString &text)
{
    return text.isEmpty() ? QVariant(QVariant::String) : QVariant(text);
}

ReportDatabase::ReportDatabase(const QString &worker)
    : m_worker(worker), m_connection(QStringLiteral("reports"))
{
}

ReportDatabase::~ReportDatabase()
{
    if (QSqlDatabase::contains(m_connection)) {
        QSqlDatabase::database(m_connection, false).close();
        QSqlDatabase::removeDatabase(m_connection);
    }
}

bool ReportDatabase::open(const QString &url, QString *error)
{
    const DatabaseUrl parts = DatabaseUrl::parse(url);
    if (!parts.error.isEmpty()) {
        *error = parts.error;
        return false;
    }
    QSqlDatabase db;
    if (!parts.sqlitePath.isEmpty()) {
        // Opening would create an empty database, which is no service's.
        if (!QFileInfo(parts.sqlitePath).isFile()) {
            *error = QStringLiteral("no database at %1 (php service/schema/migrate.php creates it)").arg(parts.sqlitePath);
            return false;
        }
        db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), m_connection);
        db.setDatabaseName(parts.sqlitePath);
        db.setConnectOptions(QStringLiteral("QSQLITE_BUSY_TIMEOUT=10000"));
    } else {
        db = QSqlDatabase::addDatabase(QStringLiteral("QPSQL"), m_connection);
        db.setDatabaseName(parts.dbname);
        db.setHostName(parts.host);
        if (!parts.port.isEmpty())
            db.setPort(parts.port.toInt());
        db.setUserName(parts.user);
        db.setPassword(parts.password);
        m_postgres = true;
    }
    if (!db.isValid()) {
        *error = QStringLiteral("the Qt SQL driver for %1 is not installed").arg(m_postgres ? QStringLiteral("PostgreSQL") : QStringLiteral("SQLite"));
        return false;
    }
    if (!reopen()) {
        *error = m_error;
        return false;
    }
    QSqlQuery version(db);
    if (!version.exec(QStringLiteral("SELECT MAX(version) FROM schema_migrations")) || !version.next()) {
        *error = QStringLiteral("%1 has no schema (php service/schema/migrate.php creates it)").arg(url);
        return false;
    }
    if (version.value(0).toInt() != SchemaVersion) {
        *error = QStringLiteral("the database is at schema version %1, this processor knows %2")
                         .arg(version.value(0).toInt()).arg(SchemaVersion);
        return false;
    }
    return true;
}

bool ReportDatabase::reopen()
{
    QSqlDatabase db = QSqlDatabase::database(m_connection, false);
    db.close();
    if (!db.open()) {
        m_error = db.lastError().text().trimmed();
        if (m_error.isEmpty())
            m_error = QStringLiteral("the database cannot be reached");
        return false;
    }
    if (!m_postgres) {
        // A lost commit here is at worst a report processed again, which counts it once all
        // the same; so the processor spares itself a sync per commit.
        QSqlQuery pragma(db);
        pragma.exec(QStringLiteral("PRAGMA journal_mode = WAL"));
        pragma.exec(QStringLiteral("PRAGMA synchronous = NORMAL"));
        pragma.exec(QStringLiteral("PRAGMA foreign_keys = ON"));
    }
    return true;
}

std::optional<Claim> ReportDatabase::claimNext(int leaseSeconds)
{
    m_error.clear();
    const qint64 at = now();
    if (!begin())
        return std::nullopt;
    QSqlDatabase db = QSqlDatabase::database(m_connection, false);
    QSqlQuery expire(db);
    expire.prepare(QStringLiteral("UPDATE reports SET state = 'failed', lease_until = NULL, failure = ? "
                                  "WHERE state = 'processing' AND lease_until < ? AND attempts >= ? RETURNING id, received_at, version"));
    expire.addBindValue(QStringLiteral("its processing was cut short %1 times (a processor crashed or was killed)").arg(MaxAttempts));
    expire.addBindValue(at);
    expire.addBindValue(MaxAttempts);
    QSqlQuery claim(db);
    claim.prepare(QStringLiteral("UPDATE reports SET state = 'processing', worker = ?, lease_until = ?, attempts = attempts + 1 "
                                 "WHERE id = (SELECT id FROM reports WHERE state = 'new' "
                                 "OR (state = 'processing' AND lease_until < ? AND attempts < ?) ORDER BY received_at LIMIT 1%1) "
                                 "RETURNING id, received_at, version, attempts")
                          .arg(m_postgres ? QStringLiteral(" FOR UPDATE SKIP LOCKED") : QString()));
    claim.addBindValue(m_worker);
    claim.addBindValue(at + leaseSeconds);
    claim.addBindValue(at);
    claim.addBindValue(MaxAttempts);
    if (!run(expire)) {
        rollback();
        return std::nullopt;
    }
    // One reprocessed before keeps no result and no count from then.
    QVector<Claim> expired;
    while (expire.next())
        expired << Claim{ expire.value(0).toString(), expire.value(1).toLongLong(), expire.value(2).toString(), 0 };
    expire.finish();
    for (const Claim &report : qAsConst(expired)) {
        if (!forget(report)) {
            rollback();
            return std::nullopt;
        }
    }
    if (!run(claim)) {
        rollback();
        return std::nullopt;
    }
    std::optional<Claim> result;
    if (claim.next())
        result = Claim{ claim.value(0).toString(), claim.value(1).toLongLong(), claim.value(2).toString(), claim.value(3).toInt() };
    claim.finish();
    if (!commit())
        return std::nullopt;
    return result;
}

std::optional<Claim> ReportDatabase::claimAgain(const QString &id, int leaseSeconds)
{
    m_error.clear();
    QSqlQuery claim(QSqlDatabase::database(m_connection, false));
    claim.prepare(QStringLiteral("UPDATE reports SET state = 'processing', worker = ?, lease_until = ?, attempts = 1 "
                                 "WHERE id = ? AND state IN ('done', 'failed') RETURNING id, received_at, version, attempts"));
    claim.addBindValue(m_worker);
    claim.addBindValue(now() + leaseSeconds);
    claim.addBindValue(id);
    if (!run(claim) || !claim.next())
        return std::nullopt;
    return Claim{ claim.value(0).toString(), claim.value(1).toLongLong(), claim.value(2).toString(), claim.value(3).toInt() };
}

QVector<QPair<qint64, QString>> ReportDatabase::finishedSince(qint64 since, qint64 afterTime, const QString &afterId, int limit)
{
    m_error.clear();
    QSqlQuery query(QSqlDatabase::database(m_connection, false));
    query.prepare(QStringLiteral("SELECT received_at, id FROM reports WHERE state IN ('done', 'failed') AND received_at >= ? "
                                 "AND (received_at > ? OR (received_at = ? AND id > ?)) ORDER BY received_at, id LIMIT ?"));
    query.addBindValue(since);
    query.addBindValue(afterTime);
    query.addBindValue(afterTime);
    query.addBindValue(afterId);
    query.addBindValue(limit);
    QVector<QPair<qint64, QString>> reports;
    if (run(query)) {
        while (query.next())
            reports << qMakePair(query.value(0).toLongLong(), query.value(1).toString());
    }
    return reports;
}

bool ReportDatabase::finish(const Claim &claim, const Result &result)
{
    if (!begin())
        return false;
    QSqlDatabase db = QSqlDatabase::database(m_connection, false);
    QSqlQuery processed(db);
    processed.prepare(QStringLiteral(
            "INSERT INTO processed (report_id, signature, rule_version, signal, address, frames, threads, message, capture, processed_at) "
            "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?) ON CONFLICT (report_id) DO UPDATE SET signature = excluded.signature, "
            "rule_version = excluded.rule_version, signal = excluded.signal, address = excluded.address, "
            "frames = excluded.frames, threads = excluded.threads, message = excluded.message, "
            "capture = excluded.capture, processed_at = excluded.processed_at"));
    processed.addBindValue(claim.id);
    processed.addBindValue(result.signature);
    processed.addBindValue(result.ruleVersion);
    processed.addBindValue(textOrNull(result.signal));
    processed.addBindValue(textOrNull(result.address));
    processed.addBindValue(QString::fromUtf8(QJsonDocument(result.frames).toJson(QJsonDocument::Compact)));
    processed.addBindValue(result.threads.isEmpty() ? QVariant(QVariant::String)
                                                    : QString::fromUtf8(QJsonDocument(result.threads).toJson(QJsonDocument::Compact)));
    processed.addBindValue(textOrNull(result.message));
    processed.addBindValue(textOrNull(result.capture));
    processed.addBindValue(now());
    QSqlQuery count(db);
    count.prepare(QStringLiteral("INSERT INTO signature_days (signature, day, version, count) VALUES (?, ?, ?, 1) "
                                 "ON CONFLICT (signature, day, version) DO UPDATE SET count = signature_days.count + 1"));
    count.addBindValue(result.signature);
    count.addBindValue(day(claim.receivedAt));
    count.addBindValue(claim.version);
    if (!endClaim(claim, QStringLiteral("done"), QString()) || !uncount(claim) || !run(processed) || !run(count)) {
        rollback();
        return false;
    }
    return commit();
}

bool ReportDatabase::fail(const Claim &claim, const QString &reason)
{
    if (!begin())
        return false;
    if (!endClaim(claim, QStringLiteral("failed"), reason) || !forget(claim)) {
        rollback();
        return false;
    }
    return commit();
}

bool ReportDatabase::release(const Claim &claim)
{
    // Given back untouched, the claim does not count as one of the report's attempts.
    QSqlQuery query(QSqlDatabase::database(m_connection, false));
    query.prepare(QStringLiteral("UPDATE reports SET state = 'new', worker = NULL, lease_until = NULL, attempts = attempts - 1 "
                                 "WHERE id = ? AND state = 'processing' AND worker = ? AND attempts = ?"));
    query.addBindValue(claim.id);
    query.addBindValue(m_worker);
    query.addBindValue(claim.attempts);
    return run(query) && query.numRowsAffected() == 1;
}

std::optional<Result> ReportDatabase::storedResult(const QString &id)
{
    m_error.clear();
    QSqlQuery query(QSqlDatabase::database(m_connection, false));
    query.prepare(QStringLiteral("SELECT signature, rule_version, signal, address, frames, threads, message, capture "
                                 "FROM processed WHERE report_id = ?"));
    query.addBindValue(id);
    if (!run(query) || !query.next())
        return std::nullopt;
    return Result{ query.value(0).toString(), query.value(1).toInt(), query.value(2).toString(), query.value(3).toString(),
                   QJsonDocument::fromJson(query.value(4).toString().toUtf8()).array(),
                   QJsonDocument::fromJson(query.value(5).toString().toUtf8()).array(), query.value(6).toString(),
                   query.value(7).toString() };
}

std::optional<QJsonObject> ReportDatabase::report(const QString &id)
{
    m_error.clear();
    QSqlQuery query(QSqlDatabase::database(m_connection, false));
    query.prepare(QStringLiteral(
            "SELECT r.id, r.received_at, r.version, r.description, r.state, r.attempts, r.failure, "
            "p.signature, p.rule_version, p.signal, p.address, p.processed_at, p.message, p.capture, p.frames, p.threads "
            "FROM reports r LEFT JOIN processed p ON p.report_id = r.id WHERE r.id = ?"));
    query.addBindValue(id);
    if (!run(query) || !query.next())
        return std::nullopt;
    QJsonObject report;
    const QStringList names = { QStringLiteral("id"), QStringLiteral("received_at"), QStringLiteral("version"),
                                QStringLiteral("description"), QStringLiteral("state"), QStringLiteral("attempts"),
                                QStringLiteral("failure"), QStringLiteral("signature"), QStringLiteral("rule_version"),
                                QStringLiteral("signal"), QStringLiteral("address"), QStringLiteral("processed_at"),
                                QStringLiteral("message"), QStringLiteral("capture") };
    for (int i = 0; i < names.size(); ++i)
        report.insert(names.at(i), query.isNull(i) ? QJsonValue() : QJsonValue::fromVariant(query.value(i)));
    for (int i : { 14, 15 }) {
        report.insert(i == 14 ? QStringLiteral("frames") : QStringLiteral("threads"),
                      query.isNull(i) ? QJsonValue() : QJsonValue(QJsonDocument::fromJson(query.value(i).toString().toUtf8()).array()));
    }
    return report;
}

bool ReportDatabase::begin()
{
    // SQLite takes its write lock at once, so that two processors cannot both read a report
    // as free and then both take it.
    m_claimLost = false;
    return execute(m_postgres ? QStringLiteral("BEGIN") : QStringLiteral("BEGIN IMMEDIATE"));
}

bool ReportDatabase::commit()
{
    if (execute(QStringLiteral("COMMIT")))
        return true;
    rollback();
    return false;
}

void ReportDatabase::rollback()
{
    QSqlQuery(QSqlDatabase::database(m_connection, false)).exec(QStringLiteral("ROLLBACK"));
}

// Unprepared: PostgreSQL prepares no transaction control.
bool ReportDatabase::execute(const QString &sql)
{
    if (!connected())
        return false;
    QSqlQuery query(QSqlDatabase::database(m_connection, false));
    if (query.exec(sql))
        return true;
    m_error = errorText(query);
    return false;
}

bool ReportDatabase::run(QSqlQuery &query)
{
    if (!connected())
        return false;
    if (query.exec())
        return true;
    m_error = errorText(query);
    return false;
}

// Qt refuses a query on a closed connection with a warning of its own and no error at all: the
// connection is looked at first, so that a database gone away never reads as "nothing to do".
bool ReportDatabase::connected()
{
    if (QSqlDatabase::database(m_connection, false).isOpen())
        return true;
    m_error = QStringLiteral("the connection to the database is closed");
    return false;
}

QString ReportDatabase::errorText(const QSqlQuery &query)
{
    const QString text = query.lastError().text().trimmed();
    return text.isEmpty() ? QStringLiteral("a query failed without a reason from the database") : text;
}

bool ReportDatabase::endClaim(const Claim &claim, const QString &state, const QString &failure)
{
    QSqlQuery query(QSqlDatabase::database(m_connection, false));
    query.prepare(QStringLiteral("UPDATE reports SET state = ?, lease_until = NULL, failure = ? "
                                 "WHERE id = ? AND state = 'processing' AND worker = ? AND attempts = ?"));
    query.addBindValue(state);
    query.addBindValue(textOrNull(failure));
    query.addBindValue(claim.id);
    query.addBindValue(m_worker);
    query.addBindValue(claim.attempts);
    if (!run(query))
        return false;
    m_claimLost = query.numRowsAffected() != 1;
    if (m_claimLost) {
        m_error = QStringLiteral("the claim on report %1 ran out and was taken by another processor").arg(claim.id);
        return false;
    }
    return true;
}

// A failed report has no result and no count.
bool ReportDatabase::forget(const Claim &claim)
{
    QSqlQuery processed(QSqlDatabase::database(m_connection, false));
    processed.prepare(QStringLiteral("DELETE FROM processed WHERE report_id = ?"));
    processed.addBindValue(claim.id);
    return uncount(claim) && run(processed);
}

// Takes a report's count from the signature it was grouped under before, if any.
bool ReportDatabase::uncount(const Claim &claim)
{
    QSqlDatabase db = QSqlDatabase::database(m_connection, false);
    QSqlQuery old(db);
    old.prepare(QStringLiteral("SELECT signature FROM processed WHERE report_id = ?"));
    old.addBindValue(claim.id);
    if (!run(old))
        return false;
    if (!old.next())
        return true;
    const QString signature = old.value(0).toString();
    old.finish();
    // Rows never hold a count of 0: the last report of a day goes with its row.
    for (const QString &sql : { QStringLiteral("DELETE FROM signature_days WHERE signature = ? AND day = ? AND version = ? AND count = 1"),
                                QStringLiteral("UPDATE signature_days SET count = count - 1 WHERE signature = ? AND day = ? AND version = ? AND count > 1") }) {
        QSqlQuery query(db);
        query.prepare(sql);
        query.addBindValue(signature);
        query.addBindValue(day(claim.receivedAt));
        query.addBindValue(claim.version);
        if (!run(query))
            return false;
    }
    return true;
}
