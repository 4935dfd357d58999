<?php
// The peer's echo: reads the whole body, then answers with it, as the echo handler does.
header('Content-Type: application/octet-stream');
echo file_get_contents('php://input');
