#pragma once

// The one mutex of the classic TLS locking interface. OpenSSL 3 locks for itself and is not given the callbacks; they
// stand here for a TLS library that has to be.

/// Makes the mutex; lack of memory leaves the callbacks without effect. clean_locks() releases it.
void init_locks();
void clean_locks();

/// The callbacks, for such a library to call. Locks the mutex of `lock_number` when bit 1 of `mode` is set, unlocks it
/// otherwise.
void tls_locking_callback(int mode, int lock_number, const char* file, int line);
unsigned long tls_thread_id_callback();
