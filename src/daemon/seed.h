// The seed of the pseudo-random generator that draws the advertise delays.
#pragma once

// Seeds both of libc's generators with the time mixed with the pid and the
// kernel's random bytes, so that boxes started in the same second draw
// different delays.
void dypd_seed_random();
