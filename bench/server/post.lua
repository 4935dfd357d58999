-- wrk script: POSTs a body of N bytes (the argument after `--`; 0 sends none) on every request
-- and, when done, writes one JSON line with the counts and the latency percentiles.
function init(args)
  local size = tonumber(args[1] or "0")
  wrk.method = "POST"
  wrk.headers["Content-Type"] = "application/octet-stream"
  if size > 0 then
    -- Printable bytes, the same for both servers.
    local block = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ+/"
    wrk.body = string.rep(block, math.floor(size / #block)) .. string.sub(block, 1, size % #block)
  else
    wrk.body = ""
  end
end

function done(summary, latency, requests)
  local errors = summary.errors
  io.write(string.format(
    '{"requests":%d,"duration_us":%d,"bytes_read":%d,"p50_us":%d,"p99_us":%d,' ..
    '"connect_errors":%d,"read_errors":%d,"write_errors":%d,"status_errors":%d,"timeouts":%d}\n',
    summary.requests, summary.duration, summary.bytes, latency:percentile(50),
    latency:percentile(99), errors.connect, errors.read, errors.write, errors.status,
    errors.timeout))
end
