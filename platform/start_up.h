// Command line, start-up and release of the item. Functions return 0 on success unless stated
// otherwise.
#pragma once

// Opens the null device on each of descriptors 0, 1 and 2 that is closed, so that no file that is
// opened later gets such a number and receives diagnostics. The first call of main.
void open_missing_standard_descriptors();

int vexa_init_argv(int argc, char** argv);
char* vexa_next_arg();                    // null at the end
int vexa_argv_is_switch(char** argument); // non-zero: a switch, its dashes removed
// > 0: a standard switch, handled; 0: not a standard switch; < 0: an error, already reported.
int vexa_argv_std_handle_switch(char* word);
void vexa_std_help(); // lists the standard switches on standard error

// Fills paths, vexa_meta, vexa_metadata and settings. Creates the comm socket in the modes that
// serve, when vexa_auto_socket_create asks for it.
int vexa_standard_to_derived_params();
int vexa_join_cnb_domain();
int vexa_redirect_stderr_to_logfile();
int vexa_self_test();
void vexa_free_all(); // releases everything of the item; may run twice
