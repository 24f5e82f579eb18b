#pragma once

/// Ends the process with `status` through exit(3). The one way out for every thread: a second caller waits
/// here until the first one's exit has taken the process down. Not for a forked child (use _exit there).
[[noreturn]] void exit_process(int status);
