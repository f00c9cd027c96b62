// The stages of one run, in the order in which they run.
#pragma once

// Returned by a stage that does not end the process.
inline constexpr int go_on = -1;

// --- start-up ---------------------------------------------------------------------------------

// A write to a client, host or log reader that has closed its end fails, and so does a write beyond
// the limit on file sizes. Without this call either would end the process.
void ignore_signals_of_writes();

// Command line, derived parameters, checks, log, callbacks, settings block, signal handler,
// confinement: everything before the picture is examined. Returns go_on, or the exit status of a
// process that ends here.
int start_up(int argc, char** argv);

// SIGTERM, SIGQUIT and SIGINT increment DIE4; the twentieth aborts the process.
void install_termination_handler();

// --- run sequence -----------------------------------------------------------------------------

// From the examination of the picture to the end of serving. Returns the exit status.
int run_sequence();

// Decodes the picture into the frame buffer with the decoder for its type and colour model, and
// closes the reader. A failure is reported, and the buffer is served with whatever it holds.
void decode_picture();

// Builds the status document, unless the platform will build it at the next transmission anyway.
void refresh_json();

// --- serving and shutdown -----------------------------------------------------------------------

// Reports to the host that frames are ready, and sets the first auto-shutdown deadline.
void announce_ready();

// Serves until a signal, the deadline, a fatal socket error or a request to exit ends it; in
// oneshot mode for one round.
void serve();

// Releases clients and frame buffer, prints the leak report, then frees everything.
void clean_up();

// Closes every reader and releases everything that belongs to the item. Accepts what was never set
// up; may run twice.
void free_all();
