// Rights that the process gives up once it has everything that it needs to serve one picture.
#pragma once

// To be called once, at the end of start-up and before a byte of the picture is read. From then on
// the process cannot gain privileges, has a limited address space, and may use only the system
// calls and files that its work needs. A fault in a codec then affects little more than its own
// picture. docs/item.md lists what remains possible.
//
// Each measure is applied separately, as far as the kernel and the environment permit. Nothing is
// printed, and no failure prevents serving. Forked children inherit the limits.
void confine_process();
