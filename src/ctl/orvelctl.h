#pragma once

/// The program orvelctl. Returns its exit status.
[[nodiscard]] int run_orvelctl(int argc, char** argv);
