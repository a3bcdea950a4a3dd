-- The processor's result for a report, replaced when the report is reprocessed.
CREATE TABLE processed (
    report_id     TEXT PRIMARY KEY REFERENCES reports (id),
    signature     TEXT NOT NULL,              -- at most 255 characters
    rule_version  INTEGER NOT NULL,           -- of the signature lists it was grouped with
    signal        TEXT,                       -- 'SIGSEGV', …; NULL without a dump
    address       TEXT,                       -- '0x…' or 'none'; NULL without a dump
    frames        TEXT NOT NULL,              -- JSON array, see service/schema/README.md
    processed_at  BIGINT NOT NULL             -- Unix seconds
);
CREATE INDEX processed_signature ON processed (signature);

-- Reports per signature, UTC day of receipt and client version: what the top-crashes page
-- sums. Kept by the processor in the transaction that finishes (or regroups) a report.
CREATE TABLE signature_days (
    signature  TEXT NOT NULL,
    day        TEXT NOT NULL,                 -- 'YYYY-MM-DD'
    version    TEXT NOT NULL,
    count      BIGINT NOT NULL CHECK (count > 0),
    PRIMARY KEY (signature, day, version)
);
CREATE INDEX signature_days_day ON signature_days (day, signature, version, count);
