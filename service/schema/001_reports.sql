-- Each accepted upload: written by the upload endpoint once its archive is in the store (this
-- row is the upload's commit point), claimed and finished by the processors.
CREATE TABLE reports (
    id                 TEXT PRIMARY KEY,      -- YYYYMMDD-<16 lowercase hex digits>, UTC date
    received_at        BIGINT NOT NULL,       -- Unix seconds
    client_addr        TEXT NOT NULL,
    fields             TEXT NOT NULL,         -- the form's plain fields as a JSON object
    version            TEXT NOT NULL,         -- from info.ini, '' when it has none
    description        TEXT NOT NULL,         -- from info.ini, '' when it has none
    size               BIGINT NOT NULL,       -- bytes of the archive
    sha256             TEXT NOT NULL,         -- of the archive, lowercase hex
    state              TEXT NOT NULL DEFAULT 'new'
                       CHECK (state IN ('new', 'processing', 'done', 'failed')),
    worker             TEXT,                  -- the processor holding or last holding it
    lease_until        BIGINT,                -- Unix seconds; past it, another may claim
    attempts           INTEGER NOT NULL DEFAULT 0,  -- claims so far
    failure            TEXT,                  -- why it ended 'failed'
    archive_removed_at BIGINT                 -- set when the raw archive aged out of the store
);
-- What the processors claim from: small, as done and failed reports leave it.
CREATE INDEX reports_pending ON reports (received_at) WHERE state IN ('new', 'processing');
CREATE INDEX reports_received ON reports (received_at);
