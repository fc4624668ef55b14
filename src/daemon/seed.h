// The seed of the pseudo-random generator that draws the advertise delays.
#pragma once

// Seeds both of libc's generators with the time mixed with what tells this
// box from its neighbours: the first interface's MAC, the host name and
// the pid.
void dypd_seed_random();
