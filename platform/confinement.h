// What the process gives up once it has everything that serving one picture takes.
#pragma once

// To be called once, when start-up is over and before a byte of the picture is looked at: from here
// on the process can gain no privileges, has a limit to its address space, may make only the system
// calls and reach only the files that its work needs. A fault in a codec then harms its own picture
// and little else. docs/item.md says what is left.
//
// Each measure is taken for itself, as far as the kernel and what surrounds the process allow it.
// Nothing is printed, and nothing that fails is a reason not to serve. Goes on in forked children.
void confine_process();
