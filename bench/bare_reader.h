/*
 * bare_reader.h: what no reader of a file-system mark can do without.
 */
#ifndef BENCH_BARE_READER_H
#define BENCH_BARE_READER_H

/* Marks the file system that holds a directory for the default kinds of `fmon watch`, prints "bare: ready", and reads
 * records until SIGTERM: every two milliseconds while any come, else when one comes. It only counts them, and prints
 * "bare: N records" in the end. The exit status. */
int read_bare(const char *directory);

#endif
