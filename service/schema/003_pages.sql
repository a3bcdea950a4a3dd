-- The newest reports of a signature: report ids begin with their day, so this index finds the
-- newest days of a signature without reading all its reports. It serves every lookup by
-- signature alone as well, so the index on signature alone goes.
CREATE INDEX processed_signature_report ON processed (signature, report_id);
DROP INDEX processed_signature;
