<?php
// The uploads bench's floor: PHP has parsed the upload into its temporary file, and nothing more
// is done with it.
declare(strict_types=1);
http_response_code(($_FILES['dumpfile']['error'] ?? -1) === UPLOAD_ERR_OK ? 204 : 400);
