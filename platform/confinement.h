// Rights that the process gives up once it has everything that it needs to serve one picture.
#pragma once

// To be called once, at the end of start-up and before a byte of the picture is read. From then on
// the process cannot gain privileges, has a limited address space, and may use only the system
// calls and files that its work needs. A fault in a codec then affects little more than its own
// picture. docs/item.md lists what remains possible.
//
// Each measure is applied separately, as far as the kernel and the environment permit; the status
// document says which are in force. Returns 0. Returns -1 after one line when a measure is refused
// and the user requires confinement (--require-confinement); the process must then end. Forked
// children inherit the limits.
int confine_process();

// To be called by a daemonised child: gives up what only going to the background needed.
void confine_daemon();
