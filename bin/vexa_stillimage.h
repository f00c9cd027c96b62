// The stages of one run, in the order in which main goes through them.
#pragma once

// A stage that does not end the process.
inline constexpr int go_on = -1;

// Entry: start-up, then the run sequence. The process's exit status.
int run_stillimage(int argc, char** argv);

// --- start-up ---------------------------------------------------------------------------------

// Command line, derived parameters, checks, log, callbacks, settings block, signal handler,
// confinement: everything before the picture is looked at. go_on, or the exit status of a process
// that ends here.
int start_up(int argc, char** argv);

void print_help(); // on standard error

// SIGTERM, SIGQUIT and SIGINT count DIE4 up; the twentieth aborts the process.
void install_termination_handler();

// Neither a client, host or log reader that goes away nor a file that has reached its size limit
// ends the process: the write fails.
void ignore_signals_of_writes();

// --- run sequence -----------------------------------------------------------------------------

// From the examination of the picture to the end of serving. The exit status.
int run_sequence();

// Decodes the picture into the frame buffer with the decoder that fits its type and colour model,
// and closes the reader. A picture that cannot be decoded is reported and served as the buffer
// stands.
void decode_picture();

// Builds the status document unless the platform is going to at its next transmission.
void refresh_json();

// --- serving and shutdown -----------------------------------------------------------------------

// Tells the host that frames can be had and sets the first auto-shutdown deadline.
void announce_ready();

// Serves until a signal, the deadline, a fatal socket error, a single round (oneshot) or a request
// to exit.
void serve();

// Gives back clients and frame buffer, prints the leak report, then frees everything.
void clean_up();

// Closes every reader and gives everything of the item back. Tolerates what was never set up; may
// run twice.
void free_all();
