#ifndef REPORTDATABASE_H
#define REPORTDATABASE_H

#include <QJsonArray>
#include <QJsonObject>
#include <QSqlDatabase>
#include <QStringList>
#include <optional>

class QSqlQuery;

// A report held by this processor: the claim is the worker's name and the attempt number it
// took, so that a worker whose lease ran out cannot finish a report another has taken since.
struct Claim
{
    QString id;
    qint64 receivedAt = 0;
    QString version;
    int attempts = 0;
};

struct Result
{
    QString signature;
    int ruleVersion = 0;
    QString signal;   // empty: NULL
    QString address;  // empty: NULL
    QJsonArray frames;  // the crashing thread's
    // From a minicore; empty (NULL) for the text dumps.
    QJsonArray threads;
    QString message;
    QString capture;
};

// The service's database, SQLite or PostgreSQL, as service/schema/README.md lays it out.
class ReportDatabase
{
public:
    static constexpr int SchemaVersion = 4;
    static constexpr int MaxAttempts = 3;

    explicit ReportDatabase(const QString &worker);
    ~ReportDatabase();

    bool open(const QString &url, QString *error);
    // Makes the connection anew; false, with lastError, while the database cannot be reached.
    bool reopen();
    QString lastError() const { return m_error; }
    // The last finish or fail found its claim run out and taken by another processor.
    bool claimLost() const { return m_claimLost; }

    // The oldest report waiting, or one whose lease ran out; first, reports whose lease ran out
    // for the last time end failed. Empty when there is none, or on an error (lastError).
    std::optional<Claim> claimNext(int leaseSeconds);
    // A report already done or failed, taken to be processed again.
    std::optional<Claim> claimAgain(const QString &id, int leaseSeconds);
    // Finished reports received at or after the time, after the given one, oldest first.
    QVector<QPair<qint64, QString>> finishedSince(qint64 since, qint64 afterTime, const QString &afterId, int limit);

    // Each false when the claim was lost (or on an error): then nothing was written.
    bool finish(const Claim &claim, const Result &result);
    bool fail(const Claim &claim, const QString &reason);
    bool release(const Claim &claim);

    // The result written when the report was last done: what regrouping starts from.
    std::optional<Result> storedResult(const QString &id);
    std::optional<QJsonObject> report(const QString &id);

private:
    bool begin();
    bool commit();
    void rollback();
    bool execute(const QString &sql);
    bool run(QSqlQuery &query);
    bool connected();
    static QString errorText(const QSqlQuery &query);
    bool endClaim(const Claim &claim, const QString &state, const QString &failure);
    bool forget(const Claim &claim);
    bool uncount(const Claim &claim);

    QString m_worker;
    QString m_connection;
    bool m_postgres = false;
    QString m_error;
    bool m_claimLost = false;
};

#endif
