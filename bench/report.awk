# Puts rows of a run beside their aims. The files are bench/aims, then a run, whose rows are program, case, contestant, where,
# and the processor's and the clock's nanoseconds, each with the library's ratio to it, and allocations; the first of
# a case is the library. Prints each row with its aim; with a document as the last file prints that instead, with the table
# of the rows between each pair of the lines "<!-- bench PROGRAM: CASE -->" (patterns with " or " between them) and "<!-- end -->".

function trimmed(text) { gsub(/^ +| +$/, "", text); return text }

function fits(text, pattern,   out, i, c) {
    for (i = 1; i <= length(pattern); i++) {
        c = substr(pattern, i, 1)
        out = out (c == "*" ? ".*" : c ~ /[A-Za-z0-9 ,:_%-]/ ? c : "[" c "]")
    }
    return text ~ "^" out "$"
}

function fitsAny(text, patterns,   count, i, each) {
    count = split(patterns, each, " or ")
    for (i = 1; i <= count; i++) if (fits(text, each[i])) return 1
    return 0
}

function amount(value, where) {
    value += 0
    if (where == "kernel calls") return sprintf("%.1f", value)
    if (where == "bytes") return sprintf("%.0f bytes", value)
    if (value < 1000) return sprintf("%.*f ns", value < 10, value)
    if (value < 1000000) return sprintf("%.*f us", value < 100000, value / 1000)
    return sprintf("%.*f ms", value < 100000000, value / 1000000)
}

# Sets value, aim, what and verdict of the present row.
function compare(   i) {
    value = aim = what = verdict = ""
    for (i = 1; i <= aims; i++) {
        if ((part[i, 4] ~ /^(own|of )/) != isLibrary) continue
        if (!fits(work, part[i, 1]) || !fits(where, part[i, 2]) || !fits(name, part[i, 3])) continue
        what = part[i, 4]; aim = part[i, 5]
        value = what == "ratio" ? ratio : what == "wall" ? $8 : what == "own" ? own : ""
        if (what ~ /^of / && substr(what, 4) in clock) value = $7 / clock[substr(what, 4)]
        if (value != "") verdict = value + 0 <= aim + 0 ? "met" : "MISSED"
        return
    }
}

FILENAME == "bench/aims" {
    if (/^#/ || NF < 5) next
    aims++
    for (i = 1; i <= 5; i++) part[aims, i] = trimmed($i)
    next
}

FILENAME ~ /\.md$/ {
    if (/^<!-- end -->$/) inside = 0
    if (!inside) print
    if (!/^<!-- bench .*: .* -->$/) next
    inside = 1
    program = $0; sub(/^<!-- bench /, "", program); sub(/: .*/, "", program)
    pattern = $0; sub(/^[^:]*: /, "", pattern); sub(/ -->$/, "", pattern)
    print "| case | where | library | beside: ratio (aim) | missed |\n|---|---|---|---|---|"
    for (i = 1; i <= cases; i++)
        if (caseOf[i] == program && fitsAny(line[i, "case"], pattern))
            print "| " line[i, "case"] " | " line[i, "where"] " | " line[i, "library"] " | " line[i, "beside"] " | " line[i, "missed"] " |"
    next
}

{
    work = $2; name = $3; where = $4
    group = $1 SUBSEP work SUBSEP where
    isLibrary = group != lastGroup
    lastGroup = group
    own = where == "1 thread" ? $5 : $7
    ratio = where == "1 thread" ? $6 : $8
    if (isLibrary) clock[work] = $7
    compare()
    if (verdict != "") { compared++; if (verdict == "MISSED") missed++ }

    # For the tables.
    if (isLibrary) {
        cases++
        caseOf[cases] = $1; line[cases, "case"] = work; line[cases, "where"] = where
        line[cases, "library"] = amount(own, where)
        if (what == "own") line[cases, "library"] = line[cases, "library"] " (" amount(aim, where) ")"
        if (what ~ /^of /) line[cases, "library"] = line[cases, "library"] sprintf(", %.2f (%s) %s", value, aim, what)
    } else {
        line[cases, "beside"] = line[cases, "beside"] (line[cases, "beside"] == "" ? "" : ", ") \
            name sprintf(" %.2f", what == "wall" ? $8 : ratio) (aim == "" ? "" : " (" aim ")")
    }
    if (verdict == "MISSED") line[cases, "missed"] = line[cases, "missed"] (line[cases, "missed"] == "" ? "" : ", ") name

    if (!isQuiet) {
        printf "%-38s %-26s %-12s %12s %7s   %s\n", work, name, where, isLibrary || $7 != "" ? amount(own, where) : "",
            isLibrary ? "" : sprintf("%.2f", ratio),
            aim == "" ? "" : sprintf("%s (aim: %s%s)", verdict, what == "own" ? amount(aim, where) : aim,
                                     what ~ /^of / ? sprintf(" %s, is %.2f", what, value) : what == "wall" ? " of the clock, is " $8 : "")
        fflush()
    }
}

END { if (!isQuiet) printf "\n%d aims compared, %d missed.\n", compared, missed }
