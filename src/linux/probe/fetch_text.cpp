#include "linux/probe/fetch_text.h"

#include <utility>

#include "orx_base.h"

namespace
{

constexpr int kLevels = 11; /* ancestors: the parent is "b", the outermost "l", and the letters count the links */

/* The words that hold one name: offsets in bytes behind what the level's expression points to. */
struct name_fields {
    int count;
    int offsets[8];
    const char *type;
};

/* Where a kernel's dentry keeps its super block, parent link and name pointer, and the words of each name. */
struct kernel_layout {
    int super_block, parent, name_pointer;
    name_fields own;
    name_fields ancestors[kLevels]; /* from "l" to "b" */
};

constexpr name_fields kOwn64 = {8, {0, 8, 16, 24, 32, 40, 48, 56}, ""};
constexpr name_fields kInline64 = {4, {56, 64, 72, 80}, ""};
constexpr kernel_layout kKernel64 = {
    104,
    24,
    40,
    kOwn64,
    {kInline64, kInline64, kInline64, kInline64, kInline64, kInline64, kInline64, kInline64, kInline64, kInline64,
     kInline64},
};

constexpr name_fields kOwn32 = {8, {0, 8, 16, 24, 32, 40, 48, 56}, ":u64"};
constexpr name_fields kInline32 = {4, {36, 44, 52, 60}, ":u64"};
constexpr name_fields kOutermost32 = {8, {36, 40, 44, 48, 52, 56, 60, 64}, ""}; /* words of 32 bits */
/* Not the inline name beyond its first word. Kept: libraries know the text as it is, to the last offset. */
constexpr name_fields kFourth32 = {4, {36, 64, 72, 80}, ":u64"};
constexpr kernel_layout kKernel32 = {
    84,
    16,
    28,
    kOwn32,
    {kOutermost32, kInline32, kInline32, kInline32, kInline32, kInline32, kInline32, kFourth32, kInline32, kInline32,
     kInline32},
};

/* ---- from a layout to its template, when this is compiled ---- */

struct builder {
    char text[FETCH_TEXT_SIZE] = {};
    int length = 0, arguments = 0;

    constexpr void put(const char *s)
    {
        while (*s)
            text[length++] = *s++;
    }
    constexpr void put_number(int n)
    {
        if (n >= 10)
            put_number(n / 10);
        text[length++] = static_cast<char>('0' + n % 10);
    }
    constexpr void open(int offset)
    {
        put("+");
        put_number(offset);
        put("(");
    }
    constexpr void name_argument(char letter, int field)
    {
        put(arguments++ ? " " : "");
        text[length++] = letter;
        put_number(field);
        put("=");
    }
    constexpr void close(int brackets, const char *type)
    {
        put("%s");
        while (brackets-- > 0)
            put(")");
        put(type);
    }
};

constexpr void put_mount(builder &out, const kernel_layout &kernel)
{
    out.put("mnt=+%d(+%d(");
    out.open(kernel.super_block);
    out.close(3, ":u32");
    out.arguments++;
}

constexpr void put_ancestor(builder &out, const kernel_layout &kernel, int links)
{
    const name_fields &fields = kernel.ancestors[kLevels - links];
    for (int i = 0; i < fields.count; i++) {
        out.name_argument(static_cast<char>('a' + links), i);
        out.open(fields.offsets[i]);
        for (int link = 0; link < links; link++)
            out.open(kernel.parent);
        out.close(links + 1, fields.type);
    }
}

constexpr void put_own_name(builder &out, const kernel_layout &kernel)
{
    for (int i = 0; i < kernel.own.count; i++) {
        out.name_argument('a', i);
        out.open(kernel.own.offsets[i]);
        out.open(kernel.name_pointer);
        out.close(2, kernel.own.type);
    }
}

constexpr builder build(const kernel_layout &kernel)
{
    builder out;
    put_mount(out, kernel);
    for (int links = kLevels; links > 0; links--)
        put_ancestor(out, kernel, links);
    put_own_name(out, kernel);
    return out;
}

template <const kernel_layout &kernel>
struct fetch_template {
    static constexpr builder made = build(kernel);
    static constexpr int arguments = made.arguments;
    char text[made.length + 1] = {}; /* only what is used goes into the library */
    constexpr fetch_template()
    {
        for (int i = 0; i < made.length; i++)
            text[i] = made.text[i];
    }
};

constexpr fetch_template<kKernel64> fetch64;
constexpr fetch_template<kKernel32> fetch32;
static_assert(sizeof(fetch64.text) == 1956 + 1 && fetch64.arguments == 53);
static_assert(sizeof(fetch32.text) == 2411 + 1 && fetch32.arguments == 57);

/* ---- from a template to a text ---- */

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral" /* checked: two "%d", then one "%s" for each argument */
template <typename Template, int... I>
void format(const Template &form, int32_t mnt_id, int32_t s_mounts, const char *dentry, char *out,
            std::integer_sequence<int, I...>)
{
    orx_str_snprintf(out, FETCH_TEXT_SIZE, form.text, mnt_id, s_mounts, (static_cast<void>(I), dentry)...);
}
#pragma GCC diagnostic pop

}  // namespace

const char *const fetch_template_64 = fetch64.text;
const char *const fetch_template_32 = fetch32.text;

void fetch_text_make(bool is_64, int32_t mnt_id_offset, int32_t s_mounts_offset, const char *dentry,
                     char out[FETCH_TEXT_SIZE])
{
    out[0] = '\0';
    if (is_64)
        format(fetch64, mnt_id_offset, s_mounts_offset, dentry, out,
               std::make_integer_sequence<int, fetch64.arguments>());
    else
        format(fetch32, mnt_id_offset, s_mounts_offset, dentry, out,
               std::make_integer_sequence<int, fetch32.arguments>());
}
