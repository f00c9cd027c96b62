// Status to the host. Never blocks; only changes are written.
#pragma once

// Progress: 0..100 with a text, 100 with an empty text at the end, -1 with a short text for a
// refusal.
void vexa_status_write(int percent, const char* text);

// 1 final, -1 provisional. Sets vexa_ready.
void vexa_ready_write(int state, const char* text);
