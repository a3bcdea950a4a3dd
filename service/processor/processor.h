#ifndef PROCESSOR_H
#define PROCESSOR_H

#include <QString>
#include <csignal>

class ReportDatabase;
class ReportStore;
class SignatureRules;
class Symbolizer;
struct Claim;

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
    Outcome process(const Claim &claim, bool again);
    Outcome failed(const Claim &claim, const QString &reason);

    ReportDatabase &m_database;
    const ReportStore &m_store;
    Symbolizer &m_symbolizer;
    const SignatureRules &m_rules;
    const volatile std::sig_atomic_t *m_stop;
    int m_leaseSeconds = 300;
};

#endif
