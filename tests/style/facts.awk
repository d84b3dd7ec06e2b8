# Reads C and C++ sources and prints what they are made of, one fact a line, the fields parted by tabs:
#
#   file   PATH LINES CODE COMMENT FILLED   lines; those that hold code; a comment (one may hold both); anything
#   func   PATH LINE NAME LENGTH      a function with a body: its lines from the opening brace to the closing one, both counted
#   class  PATH LINE NAME STATE METHODS   a class, structure or union: members of state, member functions
#   incl   PATH LINE "NAME" or <NAME>
#   odd    PATH LINE TEXT             what this reader did not understand; nothing, one hopes
#
# It is no compiler: it takes comments, literals and directives out, and goes by braces and by what stands before them. A
# lambda within a function is part of it; one in a table is a function. Static members are no state of an object.

FNR == 1 {
    if (NR > 1)
        end_of_file()
    path = FILENAME
    lines = code_lines = comment_lines = filled_lines = 0
    in_comment = in_raw = in_directive = 0
    depth = parens = 0
    head = ""
    kind[0] = "namespace"
}

{
    ++lines
    has_comment = 0
    text = in_directive ? in_directive_line($0) : strip($0)
    if (has_comment && $0 !~ /^[ \t]*$/)
        ++comment_lines
    if ($0 ~ /[^ \t]/)
        ++filled_lines
    if (text ~ /[^ \t]/)
        ++code_lines
    if (in_directive)
        in_directive = ($0 ~ /\\$/)
    else if (text ~ /^[ \t]*#/)
        directive($0)
    else
        braces(text)
}

END { if (NR) end_of_file() }

function in_directive_line(line) { return line }

function directive(line) {
    in_directive = (line ~ /\\$/)
    if (line !~ /^[ \t]*#[ \t]*include/)
        return
    sub(/^[ \t]*#[ \t]*include[ \t]*/, "", line)
    if (match(line, /^("[^"]*"|<[^>]*>)/))
        fact("incl", substr(line, 1, RLENGTH))
}

# The line without its comments; a literal becomes "".
function strip(line,    out, at, what) {
    out = ""
    while (line != "") {
        if (in_comment) {
            has_comment = 1
            at = index(line, "*/")
            if (!at)
                return out
            in_comment = 0
            line = substr(line, at + 2)
        } else if (in_raw) {
            at = index(line, raw_end)
            if (!at)
                return out "\"\"" # its lines are code
            in_raw = 0
            line = substr(line, at + length(raw_end))
        } else if (match(line, /["']|\/\/|\/\*/)) {
            what = substr(line, RSTART, RLENGTH)
            out = out substr(line, 1, RSTART - 1)
            line = substr(line, RSTART)
            if (what == "//") {
                has_comment = 1
                return out
            }
            if (what == "/*") {
                in_comment = 1
                line = substr(line, 3)
            } else if (what == "\"" && out ~ /(^|[^A-Za-z0-9_])(u8|u|U|L)?R$/) {
                at = index(line, "(")
                raw_end = ")" substr(line, 2, at - 2) "\""
                in_raw = 1
                sub(/R$/, "", out)
                out = out "\"\""
                line = substr(line, at + 1)
            } else if (what == "'" && out ~ /[0-9A-Fa-f]$/ && out ~ /(^|[^A-Za-z0-9_])[0-9][0-9A-Fa-fXx]*$/) {
                line = substr(line, 2) # 1'000'000
            } else if (what == "\"" ? match(line, /^"([^"\\]|\\.)*"/) : match(line, /^'([^'\\]|\\.)*'/)) {
                out = out "\"\""
                line = substr(line, RLENGTH + 1)
            } else {
                odd("literal without an end")
                return out
            }
        } else {
            return out line
        }
    }
    return out
}

function braces(line,    c) {
    while (match(line, /[{};()]|\[|\]/)) {
        c = substr(line, RSTART, 1)
        head = head substr(line, 1, RSTART - 1)
        line = substr(line, RSTART + 1)
        if (c == "{")
            open_brace()
        else if (c == "}")
            close_brace()
        else if (c == ";" && parens == 0) {
            statement()
            head = ""
        } else {
            parens += (c == "(" || c == "[") - (c == ")" || c == "]")
            head = head c
        }
    }
    head = head line " "
    if (kind[depth] == "class" && parens == 0)
        sub(/^[ \t]*(public|private|protected)[ \t]*:[^:]?/, "", head)
}

function open_brace(    k) {
    sub(/^[ \t]*(public|private|protected)[ \t]*:/, "", head)
    k = what_opens()
    ++depth
    kind[depth] = k
    saved_head[depth] = head
    saved_parens[depth] = parens
    opened[depth] = FNR
    if (k == "func")
        name[depth] = function_name(head)
    else if (k == "class") {
        name[depth] = class_name(head)
        state[depth] = methods[depth] = 0
    }
    head = ""
    parens = 0
}

function close_brace(    k) {
    if (depth == 0) {
        odd("a brace too many")
        return
    }
    k = kind[depth]
    head = ""
    parens = saved_parens[depth]
    if (k == "func") {
        fact("func", within() name[depth] "\t" FNR - opened[depth] + 1, opened[depth])
        if (kind[depth - 1] == "class")
            ++methods[depth - 1]
        if (name[depth] == "lambda")
            head = saved_head[depth] "{}"
    } else if (k == "class") {
        fact("class", within() name[depth] "\t" state[depth] "\t" methods[depth], opened[depth])
        if (name[depth] == "" && kind[depth - 1] == "class")
            anonymous[depth - 1] = state[depth]
        head = "@class "
    } else if (k == "value")
        head = saved_head[depth] "{}"
    --depth
}

# The classes around what is open now.
function within(    i, s) {
    s = ""
    for (i = 1; i < depth; ++i)
        if (kind[i] == "class" && name[i] != "")
            s = s name[i] "::"
    return s
}

# By the text before a brace: "namespace", "class", "func", "block" (within a function) or "value".
function what_opens(    h, first) {
    if (kind[depth] == "func" || kind[depth] == "block")
        return "block"
    if (head ~ /\][ \t]*(\([^()]*(\([^()]*\)[^()]*)*\))?[ \t]*(mutable|noexcept|constexpr)?[ \t]*(->[^{}()]*)?$/ &&
        (kind[depth] == "value" || parens > 0 || plain(head) ~ /=/) && head ~ /\[[^]]*\][ \t]*(\(|$|m|n|-)/)
        return "func"
    if (kind[depth] == "value" || parens > 0)
        return "value"
    h = plain(head)
    if (h ~ /^[ \t]*(inline[ \t]+)?namespace([^A-Za-z0-9_]|$)/ || h ~ /^[ \t]*extern[ \t]*""[ \t]*$/)
        return "namespace"
    if (h ~ /=/)
        return "value"
    first = h
    gsub(/^[ \t]+|[ \t]+$/, "", first)
    if (first ~ /^((typedef|static|const|constexpr|inline|extern|friend|@class)[ \t]+)*enum([^A-Za-z0-9_]|$)/ && h !~ /\)[ \t]*$/)
        return "value"
    if (first ~ /^((typedef|static|const|constexpr|inline|extern)[ \t]+)*(class|struct|union)([^A-Za-z0-9_]|$)/ &&
        h !~ /\)[ \t]*(const|noexcept|override|final)*[ \t]*$/)
        return "class"
    if (h !~ /\)/)
        return "value"
    # A constructor's list of members: `name{` and `name<T>{` begin a value, `) {` and `} {` the body.
    if (h ~ /\)[ \t]*(noexcept[ \t]*)?:[^:]/ && h ~ /[A-Za-z0-9_>][ \t]*$/)
        return "value"
    return "func"
}

# A head without attributes, the lists of templates and the names of operators.
function plain(h) {
    gsub(/\[\[[^]]*\]\]/, " ", h)
    gsub(/operator[ \t]*(<=>|<<|>>|==|!=|<=|>=|\+=|-=|\|=|&=|\(\)|\[\]|<|>|=)/, "operator", h)
    while (sub(/<[^<>()=;]*(\([^()]*\))?[^<>()=;]*(=[^<>=;,]*)?>/, "", h))
        ;
    gsub(/[<>=!]=/, " ", h)
    while (h ~ /\([^()]*=[^()]*\)/) # default arguments
        sub(/=[^()]*\)/, ")", h)
    sub(/^[ \t]*template[ \t]*/, "", h)
    sub(/^[ \t]*requires[^;]*[)][ \t]*/, "", h)
    return h
}

function function_name(h,    s, at) {
    if (h ~ /\]/ && plain(h) !~ /[A-Za-z_][A-Za-z0-9_]*[ \t]*\(/)
        return "lambda"
    if (kind[depth - 1] == "value" || saved_parens[depth] > 0 || (plain(h) ~ /=/ && h ~ /\[/))
        return "lambda"
    s = h
    if (match(s, /^[ \t]*[A-Z][A-Z_]+\([A-Za-z0-9_, \t]*\)[ \t]*$/)) { # a macro's: TEST(Suite, Name)
        sub(/^[ \t]*[A-Z_]*\([ \t]*/, "", s)
        sub(/[ \t]*\)[ \t]*$/, "", s)
        sub(/,[ \t]*/, ".", s)
        return s
    }
    if (match(s, /operator[^A-Za-z0-9_]*\(\)[ \t]*\(/))
        return qualifier(substr(s, 1, RSTART - 1)) "operator()"
    if (match(s, /operator[ \t]*[^(]*\(/)) {
        at = RSTART
        s = substr(s, 1, at + RLENGTH - 2)
        return qualifier(substr(s, 1, at - 1)) substr(s, at)
    }
    gsub(/(__attribute__[ \t]*\(\(([^()]*(\([^()]*\))?)*\)\))|alignas[ \t]*\([^()]*\)|decltype[ \t]*\([^()]*\)/, " ", s)
    gsub(/\[\[[^]]*\]\]/, " ", s)
    while (sub(/<[^<>()]*>/, "", s))
        ;
    if (match(s, /~?[A-Za-z_][A-Za-z0-9_:~]*[ \t]*\(/)) {
        s = substr(s, RSTART, RLENGTH - 1)
        gsub(/[ \t]/, "", s)
        return s
    }
    return "?"
}

function qualifier(s) { return match(s, /[A-Za-z0-9_:]+::$/) ? substr(s, RSTART, RLENGTH) : "" }

function class_name(h) {
    h = plain(h)
    gsub(/__attribute__[ \t]*\(\([^()]*(\([^()]*\))?[^()]*\)\)|[A-Z][A-Z0-9_]*[ \t]*\([^()]*\)|alignas[ \t]*\([^()]*\)/, " ", h)
    sub(/[^:]:[^:].*$/, "", h)
    sub(/[ \t]+final[ \t]*$/, "", h)
    gsub(/[ \t]+$/, "", h)
    sub(/^.*(class|struct|union)/, "", h)
    sub(/^.*[ \t]/, "", h)
    return h
}

# A statement has ended: in a class, a declaration.
function statement(    s, n) {
    if (kind[depth] != "class")
        return
    s = head
    sub(/^[ \t]*(public|private|protected)[ \t]*:/, "", s)
    if (s ~ /^@class[ \t]*$/) { # a nested class; without a name its members are those of the class around it
        state[depth] += anonymous[depth]
        anonymous[depth] = 0
        return
    }
    anonymous[depth] = 0
    sub(/^@class/, "T", s)
    gsub(/\[\[[^]]*\]\]/, " ", s)
    gsub(/alignas[ \t]*\([^()]*\)|decltype[ \t]*\([^()]*\)|[A-Z][A-Z0-9_]+[ \t]*\([^()]*\)/, " ", s)
    gsub(/\{[^{}]*\}/, " ", s)
    while (match(s, /=[^()]*\(/)) # what a call in a first value is given
        if (!sub(/\([^()]*\)/, " ", s))
            break
    gsub(/^[ \t]+|[ \t]+$/, "", s)
    if (s == "" || s ~ /^(using|typedef|friend|template|static_assert|enum)([^A-Za-z0-9_]|$)/ ||
        s ~ /^(class|struct|union)[ \t]+[A-Za-z0-9_]+$/)
        return
    gsub(/\[[^]]*\]/, " ", s)
    s = plain(s)
    if (s ~ /operator/ || s ~ /^[^(=]*[A-Za-z0-9_~][ \t]*\(/) {
        if (s !~ /\([ \t]*\*/ || s ~ /operator/) {
            ++methods[depth]
            return
        }
    }
    if (s ~ /^(static|inline static|constexpr)([^A-Za-z0-9_]|$)/)
        return
    gsub(/=[^,]*/, "", s)
    n = 1
    if (s !~ /\(/)
        n += gsub(/,/, ",", s)
    state[depth] += n
}

function end_of_file() {
    if (depth != 0)
        print "odd\t" path "\t" lines "\tbraces that do not close"
    print "file\t" path "\t" lines "\t" code_lines "\t" comment_lines "\t" filled_lines
}

function odd(what) { fact("odd", what) }

function fact(what, rest, line) { print what "\t" path "\t" (line ? line : FNR) "\t" rest }
