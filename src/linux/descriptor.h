/*
 * descriptor.h: what every descriptor that the monitor opens for itself goes through.
 */
#ifndef FMON_DESCRIPTOR_H
#define FMON_DESCRIPTOR_H

/*
 * Takes over a fresh descriptor: closed on exec, and never 0. In a process whose standard input is closed the kernel
 * hands out 0, which the event table reads as "from a kernel probe" and the mount test as "no source". Returns the
 * descriptor to use, or -1 with errno (the given one is closed then). A negative one is passed on.
 */
int descriptor_settle(int fd);

#endif
