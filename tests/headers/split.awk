# Writes the examples in the comments of headers into files in `directory`.
/^\/\/\/ ~~~$/ { file = "" }
file != "" { print substr($0, 5) >file }
/^\/\/\/ ~~~\{\.cpp\}$/ { file = directory "/" ++count ".cpp" }
