/*
 * A test double of the agent's container library: answers from a text file and keeps a list of its calls.
 *
 * Both lie in the directory that the environment variable FMON_CONTAINER_DOUBLE names, and are opened anew at each
 * call. "answers" has a row a line, fields parted by one blank:
 *
 *   mount ID PID LABEL           the container of a mount; a label of "-" is a null one
 *   info ID MEMBER VALUE         one member of a container's information, named as in the structure; the value is the
 *                                rest of the line. Members that are not named are null or 0.
 *
 * "calls" gets a line for each call: "mount ID", "info ID", "free ID". Without the directory nothing is known.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "orx_sensitivedir.h"

#define EXPORTED __attribute__((visibility("default")))

enum { LINE_MAX_SIZE = 1024, FIELD_SIZE = 256, TEXTS = 10 };

static FILE *open_in_directory(const char *name, const char *mode)
{
    char path[4096];
    const char *directory = getenv("FMON_CONTAINER_DOUBLE");
    if (!directory)
        return NULL;
    snprintf(path, sizeof path, "%s/%s", directory, name);
    return fopen(path, mode);
}

/* One write a line, so that lines of several processes do not mix. */
static void note_call(const char *what, const char *id)
{
    FILE *calls = open_in_directory("calls", "ae");
    if (!calls)
        return;
    fprintf(calls, "%s %s\n", what, id);
    fclose(calls);
}

/* Calls take(rest of the row) for each row "KIND ID ..." of the answers; whether there was one. */
static int find_rows(const char *kind, const char *id, void (*take)(const char *rest, void *arg), void *arg)
{
    char line[LINE_MAX_SIZE], begin[FIELD_SIZE];
    int found = 0;
    FILE *answers = open_in_directory("answers", "re");
    if (!answers)
        return 0;
    const size_t length = (size_t)snprintf(begin, sizeof begin, "%s %s ", kind, id);
    while (fgets(line, sizeof line, answers)) {
        line[strcspn(line, "\n")] = 0;
        if (strncmp(line, begin, length) == 0) {
            take(line + length, arg);
            found = 1;
        }
    }
    fclose(answers);
    return found;
}

#ifndef WITHOUT__orx_get_container_mount

struct mount_answer {
    struct orx_container_mount record;
    char label[FIELD_SIZE];
};

static void take_mount(const char *rest, void *arg)
{
    struct mount_answer *answer = arg;
    char *end;
    answer->record.pid = (int32_t)strtol(rest, &end, 10);
    snprintf(answer->label, sizeof answer->label, "%s", *end ? end + 1 : "");
    answer->record.label = strcmp(answer->label, "-") == 0 ? NULL : answer->label;
}

EXPORTED const struct orx_container_mount *_orx_get_container_mount(const char *id)
{
    static struct mount_answer answer;
    note_call("mount", id);
    return find_rows("mount", id, take_mount, &answer) ? &answer.record : NULL;
}

#endif

#if !defined(WITHOUT__orx_get_container_info) || !defined(WITHOUT__orx_free_container_info)

/* A record with its id and the room for its texts behind it. */
struct info_answer {
    struct orx_container_info record;
    char id[FIELD_SIZE];
    char texts[TEXTS][FIELD_SIZE];
};

#endif

#ifndef WITHOUT__orx_get_container_info

/* The place of a text member, null: it is none. */
static const char **text_member(struct orx_container_info *info, const char *name, size_t *index)
{
    const struct {
        const char *name;
        const char **place;
    } rows[TEXTS] = {
        {"mounts", &info->mounts},
        {"user", &info->user},
        {"container_namespace", &info->container_namespace},
        {"image_id", &info->image_id},
        {"image_name", &info->image_name},
        {"image_tag", &info->image_tag},
        {"repository", &info->repository},
        {"container_name", &info->container_name},
        {"capability", &info->capability},
        {"ports_binding", &info->ports_binding},
    };
    for (*index = 0; *index < TEXTS; ++*index)
        if (strcmp(rows[*index].name, name) == 0)
            return rows[*index].place;
    return NULL;
}

static int32_t *number_member(struct orx_container_info *info, const char *name)
{
    if (strcmp(name, "privileged") == 0)
        return &info->privileged;
    if (strcmp(name, "status") == 0)
        return &info->status;
    return strcmp(name, "init_pid") == 0 ? &info->init_pid : NULL;
}

static void take_member(const char *rest, void *arg)
{
    struct info_answer *answer = arg;
    char name[FIELD_SIZE];
    size_t index;
    const size_t length = strcspn(rest, " ");
    snprintf(name, sizeof name, "%.*s", (int)length, rest);
    const char *value = rest[length] ? rest + length + 1 : "";
    const char **text = text_member(&answer->record, name, &index);
    int32_t *number = number_member(&answer->record, name);
    if (text) {
        snprintf(answer->texts[index], FIELD_SIZE, "%s", value);
        *text = answer->texts[index];
    } else if (number) {
        *number = (int32_t)strtol(value, NULL, 10);
    } else {
        fprintf(stderr, "container double: no such member: %s\n", name);
        abort();
    }
}

EXPORTED struct orx_container_info *_orx_get_container_info(const char *id)
{
    note_call("info", id);
    struct info_answer *answer = calloc(1, sizeof *answer);
    if (!answer)
        return NULL;
    snprintf(answer->id, sizeof answer->id, "%s", id);
    if (find_rows("info", id, take_member, answer))
        return &answer->record;
    free(answer);
    return NULL;
}

#endif

#ifndef WITHOUT__orx_free_container_info

EXPORTED void _orx_free_container_info(struct orx_container_info *info)
{
    struct info_answer *answer = (struct info_answer *)info; /* the record comes first */
    if (!answer)
        return;
    note_call("free", answer->id);
    free(answer);
}

#endif
