#pragma once

// The agent's state record. Each change is written to the settings store and reported as a JSON document to the
// handler "event_sink". One lock over change, report and save: reports tell changes in their order. Any thread.

/// Fills the record from the settings store and reports it. Once, at start-up. Nothing after finish_state_record().
void orvel_state_init(int daemon);

/// For whoever is about to end the process on a stop: stores "not connected" and no process id, and lets no later
/// start, change or report through, so that what start-up or the session does at that moment leaves no trace.
void finish_state_record();

/// Set a flag (0 or 1); its present value changes and reports nothing. The connected flag is not stored.
void set_registered(int registered);
void set_claimed(int claimed);
void set_connected(int connected);

/// The stored claimed flag.
[[nodiscard]] int claimed_state();

/// Reports the state as it is: what SIGUSR2 asks for. Nothing before orvel_state_init().
void request_report();

/// Tells the handler "event_sink_SERVICE" that the service's claim changed.
void notify_service(const char* service_id, int claimed);
