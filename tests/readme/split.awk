# Writes the blocks of the pages into files in `directory`. A C++ or ini block goes to program/, or
# to expected/ if it is the second of its name, which stands in the line before it. Commands go to
# tree.sh, and to program.sh after the heading "Use". Blocks of text are output, and left out.
/^## / { place = /^## Use/ ? "program" : "tree" }
/^```/ {
  inside = !inside
  file = ""
  kind = substr($0, 4)
  if (!inside || kind == "text") next
  if (kind == "sh") {
    file = directory "/" place ".sh"
  } else if (kind == "cmake" || kind == "meson") {
    file = directory "/" ++count "." kind
  } else if ((kind == "cpp" || kind == "ini") && match(previous, /`[a-z.]+`/)) {
    name = substr(previous, RSTART + 1, RLENGTH - 2)
    file = directory "/" (seen[name]++ ? "expected" : "program") "/" name
  } else {
    print FILENAME ":" FNR ": a block that is neither to be run nor text" >"/dev/stderr"
    exit 1
  }
  next
}
inside { if (file != "") print >>file; next }
NF { previous = $0 }
