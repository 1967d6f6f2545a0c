# The C++ samples of documents as one source: each indented block with a statement in it becomes a function, or
# where it has a main function, a namespace.
function finish(   n) {
    if (block ~ /;[ ]*(\/\/[^\n]*)?\n/) {
        ++samples
        printf "%s\n", includes
        if (block ~ /int main\(/)
            printf "namespace sample%d {\n%s}\n", samples, place block
        else
            printf "void Sample%d() {\n%s}\n", samples, place block
    }
    block = includes = ""
    isInside = 0
}
FNR == 1 { finish(); isAfterBlank = 1 }
/^    / && (isInside || isAfterBlank) {
    if (!isInside) place = sprintf("#line %d \"%s\"\n", FNR, FILENAME)
    isInside = 1
    line = substr($0, 5)
    if (line ~ /^#include/) { includes = includes line "\n"; line = "" }
    block = block (line == "..." ? "" : line) "\n"
    next
}
/^$/ { isAfterBlank = 1; if (isInside) block = block "\n"; next }
{ finish(); isAfterBlank = 0 }
END { finish() }
