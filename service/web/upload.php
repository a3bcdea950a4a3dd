<?php
// POST /upload: checks one crash report, stores its archive and then its row, and answers with
// one plain-text line, which the sender's window shows as it is.
declare(strict_types=1);
require __DIR__ . '/lib/config.php';
require __DIR__ . '/lib/db.php';
require __DIR__ . '/lib/store.php';
require __DIR__ . '/lib/archive.php';
require __DIR__ . '/lib/reports.php';

const FILE_FIELD = 'dumpfile';
const FIELD_NAME_MAX_BYTES = 64;
const FIELD_VALUE_MAX_BYTES = 1024;

function answer(int $status, string $line): never
{
    http_response_code($status);
    header('Content-Type: text/plain; charset=utf-8');
    header('Cache-Control: no-store');
    // No line break: the window shows the body as one line of its own.
    echo $line;
    exit;
}

// PHP parses the form before this script runs and notes what it had to drop only as a warning.
function checkFormWasWhole(): void
{
    $warning = error_get_last()['message'] ?? '';
    if (str_contains($warning, 'Maximum number of allowable file uploads'))
        throw new Refusal(400, 'Report refused: the upload holds more than one file.');
    if (str_contains($warning, 'Input variables exceeded') || str_contains($warning, 'Multipart body parts limit'))
        throw new Refusal(400, 'Report refused: the upload holds too many form fields.');
    if (str_contains($warning, 'exceeds the limit of'))
        throw new Refusal(413, 'Report refused: the upload is over the limit of ' . serviceConfig()['max_bytes'] . ' bytes.');
}

// The plain form fields: strings only, each short and in UTF-8.
function checkedFields(array $post): array
{
    foreach ($post as $name => $value) {
        $name = (string) $name;
        if (!is_string($value))
            throw new Refusal(400, 'Report refused: the form field "' . bounded($name) . '" is not plain text.');
        if (strlen($name) > FIELD_NAME_MAX_BYTES || strlen($value) > FIELD_VALUE_MAX_BYTES)
            throw new Refusal(400, 'Report refused: the form field "' . bounded($name) . '" is over '
                              . FIELD_VALUE_MAX_BYTES . ' bytes or its name over ' . FIELD_NAME_MAX_BYTES . '.');
        if (!preg_match('//u', $name) || !preg_match('//u', $value))
            throw new Refusal(400, 'Report refused: a form field is not UTF-8 text.');
    }
    return $post;
}

// A field name put back into the answer line, short and in printable ASCII.
function bounded(string $name): string
{
    return substr((string) preg_replace('/[^\x20-\x7e]|"/', '?', $name), 0, FIELD_NAME_MAX_BYTES);
}

// The uploaded archive's temporary file.
function uploadedArchive(int $maxBytes): string
{
    if (stripos($_SERVER['CONTENT_TYPE'] ?? '', 'multipart/form-data') !== 0)
        throw new Refusal(415, 'Report refused: the upload is not multipart/form-data.');
    $file = $_FILES[FILE_FIELD] ?? null;
    if ($file === null || is_array($file['error']) || $file['error'] === UPLOAD_ERR_NO_FILE)
        throw new Refusal(400, 'Report refused: no file in the field "' . FILE_FIELD . '".');
    if (count($_FILES) !== 1)
        throw new Refusal(400, 'Report refused: the upload holds more than one file.');
    switch ($file['error']) {
    case UPLOAD_ERR_OK:
        return $file['tmp_name'];
    case UPLOAD_ERR_INI_SIZE:
    case UPLOAD_ERR_FORM_SIZE:
        throw new Refusal(413, "Report refused: the file is over the limit of $maxBytes bytes.");
    case UPLOAD_ERR_PARTIAL:
        throw new Refusal(400, 'Report refused: the file arrived incomplete.');
    case UPLOAD_ERR_NO_TMP_DIR:
    case UPLOAD_ERR_CANT_WRITE:
        throw new StoreFullException('PHP could not keep the upload: error ' . $file['error']);
    }
    throw new RuntimeException('upload error ' . $file['error']);
}

function accept(): string
{
    checkFormWasWhole();
    $config = serviceConfig();
    $maxBytes = (int) $config['max_bytes'];
    $archive = uploadedArchive($maxBytes);
    $fields = checkedFields($_POST);
    [$version, $description] = checkArchive($archive, (int) ($config['max_log_bytes'] ?? 32 << 20));

    $db = openDatabase($config['db'], true);
    $store = new FileStore($config['store']);
    $id = newReportId();
    [$size, $sha256] = $store->put($id, $archive);
    try {
        insertReports($db, [['id' => $id, 'received_at' => time(), 'client_addr' => $_SERVER['REMOTE_ADDR'] ?? '', 'fields' => $fields,
                             'version' => $version, 'description' => $description, 'size' => $size, 'sha256' => $sha256]]);
    } catch (Throwable $e) {
        // Without its row the archive is no report: it must not stay behind as one.
        $store->remove($id);
        throw $e;
    }
    return "Report $id received ($size bytes).";
}

if ($_SERVER['REQUEST_METHOD'] !== 'POST') {
    header('Allow: POST');
    answer(405, 'Reports are sent here with POST.');
}
try {
    $line = accept();
    error_log("$line From " . ($_SERVER['REMOTE_ADDR'] ?? 'an unknown address') . '.');
    answer(200, $line);
} catch (Refusal $refusal) {
    answer($refusal->status, $refusal->getMessage());
} catch (StoreFullException $e) {
    error_log('upload: ' . $e->getMessage());
    answer(507, 'Report not stored: the service has no room left; please try again later.');
} catch (PDOException $e) {
    error_log('upload: ' . $e->getMessage());
    answer(503, 'Report not stored: the database is unavailable; please try again later.');
} catch (Throwable $e) {
    error_log('upload: ' . $e->getMessage());
    answer(500, 'Report not stored: the service failed; please try again later.');
}
