-- What a minicore adds to a result: every thread with its frames, the message the crash carried,
-- and how the threads were captured. NULL for reports from text dumps.
ALTER TABLE processed ADD COLUMN threads TEXT;   -- JSON array, see service/schema/README.md
ALTER TABLE processed ADD COLUMN message TEXT;
ALTER TABLE processed ADD COLUMN capture TEXT;   -- 'ptrace' or 'self'
