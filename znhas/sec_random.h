// The random byte source of host key generation. Seeded once per process from
// the process id and the time of day, then one byte per call from the 48-bit
// linear congruential generator. This seeding is weak; it is kept because the
// system's host keys have always been made this way, and must not be reused
// for new designs. Thread safe (the generator state is behind a mutex).
#pragma once

// The low byte of the next generator value (0..255).
int sec__randnum();

// The seed the first call uses, from its inputs: t = pid * seconds + minutes
// west of UTC - daylight flag, u = microseconds (1 if 0), seed = (t / u) *
// (t % u) + 17, computed with wrap-around.
long sec__randseed(long pid, long seconds, long microseconds, long minuteswest, long dsttime);
