#pragma once

// Texts that start-up needs before the agent runs. Any thread.

/// Appends `piece` to the malloc'ed `*dst` (null counts as empty). When nothing is to be stored or memory is
/// short, `*dst` stays as it is.
void str_append(char** dst, const char* piece);

/// The target of a symbolic link as a new string for the caller to free, or null.
[[nodiscard]] char* resolve_link(const char* path);
