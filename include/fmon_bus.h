/*
 * fmon_bus.h: a message bus as the command uses it: a plug-in library for each engine (Kafka, NATS), found at run time.
 *
 * Conventions: text is NUL-terminated and, like all that is handed over, the caller's: it is valid during the call.
 * A bus is used by one thread, and calls the listener's functions from inside of send(), poll() and close() only. No
 * function may throw. Secrets are handed over as paths of files, so that they can be read anew, and appear in no text
 * that a plug-in gives.
 */
#ifndef FMON_BUS_H
#define FMON_BUS_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define FMON_BUS_VERSION 1u
#define FMON_BUS_ENTRY "fmon_bus_get" /* the function that a plug-in exports */

/* A setting by its name in the configuration. Of several values each ends in a newline; of flags the value is "true" or
 * "false"; of times milliseconds, of sizes bytes. */
struct fmon_bus_setting {
    const char *key;
    const char *value;
};

struct fmon_bus_message {
    uint64_t number;     /* not 0, and of no other message whose outcome is open; its outcome is reported by it */
    const char *subject; /* or topic */
    const char *id;      /* the same whenever the record is sent: the bus, or who reads it, can tell a second time */
    const char *host;
    const char *key; /* what belongs together; may hold any bytes */
    size_t key_size;
    const char *text;
    size_t text_size;
};

enum fmon_bus_outcome {
    FMON_BUS_STORED = 0,  /* the bus has it, as safe as it was set to keep it */
    FMON_BUS_AGAIN = 1,   /* it may have it or not: to be sent again */
    FMON_BUS_REFUSED = 2, /* it will never take this one: too long */
};

struct fmon_bus_listener {
    void *context;
    /* Once for each message that was taken, and again where one was sent again; in any order. `why`: for a person,
     * empty for FMON_BUS_STORED. */
    void (*outcome)(void *context, uint64_t number, enum fmon_bus_outcome outcome, const char *why);
    /* Whether the bus works, as far as is known: one line for a person, empty when it does. */
    void (*condition)(void *context, int works, const char *why);
};

struct fmon_bus; /* the plug-in's */

struct fmon_bus_plugin {
    uint32_t version; /* FMON_BUS_VERSION */
    uint32_t size;    /* of this structure */
    const char *name; /* of the engine, with its version */

    /* Null, with one line in `error`: the settings contradict themselves, or a file that they name is wrong. A broker
     * that is not there is no reason. The listener stays valid until close(). */
    struct fmon_bus *(*open)(const struct fmon_bus_setting *settings, size_t count,
                             const struct fmon_bus_listener *listener, char *error, size_t error_size);
    /* Takes messages in order, and copies them. How many; fewer than all: no more now. Does not wait. */
    size_t (*send)(struct fmon_bus *bus, const struct fmon_bus_message *messages, size_t count);
    /* Reports what has become of messages; waits for that as long as is said, at most, while there is nothing. While
     * there is no connection it may take some seconds to try for one. */
    void (*poll)(struct fmon_bus *bus, int timeout_ms);
    /* Ends everything; messages whose outcome is open get none. Waits a second at most. */
    void (*close)(struct fmon_bus *bus);
};

/* A plug-in's one function, exported as FMON_BUS_ENTRY; never null. */
typedef const struct fmon_bus_plugin *(*fmon_bus_entry)(void);

#ifdef __cplusplus
}
#endif

#endif
