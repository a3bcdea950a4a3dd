#ifndef PROCESSOR_H
#define PROCESSOR_H

#include "reportdatabase.h"

#include <QString>
#include <csignal>
#include <optional>

class ReportStore;
class SignatureRules;
class Symbolizer;

// The work on one report, from its claim to its end: read the archive, parse the dump,
// symbolize, group, write the result, or end the report failed with the reason.
class Processor
{
public:
    enum Outcome { Idle, Done, Failed, Released, Lost, DatabaseError };

    Processor(ReportDatabase &database, const ReportStore &store, Symbolizer &symbolizer,
              const SignatureRules &rules, const volatile std::sig_atomic_t *stop);

    void setLeaseSeconds(int seconds) { m_leaseSeconds = seconds; }
    Outcome processNext();
    Outcome processAgain(const QString &id);

private:
    // An end the database did not take while its claim is still this processor's.
    struct Unwritten
    {
        Claim claim;
        Result result;
        QString failure;  // empty: done with the result
    };

    Outcome process(const Claim &claim, bool again);
    Outcome givenBack(const Claim &claim);
    Outcome finished(const Claim &claim, const Result &result);
    Outcome failed(const Claim &claim, const QString &reason);
    Outcome notWritten(const Unwritten &unwritten);

    ReportDatabase &m_database;
    const ReportStore &m_store;
    Symbolizer &m_symbolizer;
    const SignatureRules &m_rules;
    const volatile std::sig_atomic_t *m_stop;
    int m_leaseSeconds = 300;
    std::optional<Unwritten> m_unwritten;
};

#endif
