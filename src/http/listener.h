// The HTTP front end on the loopback address.
#pragma once

namespace kova {

/// Listens on 127.0.0.1 and serves every connection on a thread of its own until no more can be
/// accepted. Returns the process's exit code: 2 when it cannot listen, also for a port text whose
/// value is not 1 to 65,535, else 0. `job_refused` is called whenever the system refuses a
/// session's process because of the job that this process runs in (Windows), by one thread at a
/// time.
[[nodiscard]] int run_http_listener(const char* port_text, void (*job_refused)());

}  // namespace kova
