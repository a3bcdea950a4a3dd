<?php
// Answers a multipart POST with what PHP's own form parser made of it.
$files = [];
foreach ($_FILES as $field => $file) {
    $files[$field] = [
        'name' => $file['name'],
        'type' => $file['type'],
        'size' => $file['size'],
        'error' => $file['error'],
        'md5' => $file['error'] === UPLOAD_ERR_OK ? md5_file($file['tmp_name']) : '',
    ];
}
header('Content-Type: application/json');
echo json_encode(['post' => $_POST, 'files' => $files]);
