# Hands the comments of a header to Doxygen: the tree writes plain ones. A comment line becomes one of documentation, the
# file's first comment the page of the file, "//   name  meaning" a parameter, "//   returns  meaning" the result, a comment
# behind code that of the member before it. A comment above several functions of one name speaks for all of them up to a
# blank line or another comment: the further ones get its text, too.
# The number of lines stays, so that warnings name the right one.
function code_of(line) {
  sub(/[ \t]*\/\/.*$/, "", line)
  gsub(/"([^"\\]|\\.)*"/, "\"\"", line)
  gsub(/'([^'\\]|\\.)'/, "''", line)
  return line
}
function count(text, pattern) { return gsub(pattern, "&", text) }
# Text of a comment line as documentation: what Doxygen would take for its own is escaped.
function escaped(text) {
  gsub(/\\/, "&&", text)
  gsub(/@/, "\\@", text)
  gsub(/</, "\\<", text)
  gsub(/>/, "\\>", text)
  gsub(/#/, "\\#", text)
  return text
}
NR == 1 && /^\/\/ [^ ]+: / {
  sub(/^\/\/ [^ ]+: /, "")
  print "/** @file */ /// " escaped($0)
  in_file_comment = 1
  next
}
in_file_comment && !/^\/\// { in_file_comment = 0 }
in_file_comment { print "/// " escaped(substr($0, 4)); next }
/^[ \t]*$/ { shared = ""; behind = 0; fresh = 0; print; next }
/^[ \t]*\/\/ ---/ { shared = ""; print ""; next }
# The second and further lines of a comment behind code.
behind && /^[ \t]*\/\/ / && index($0, "//") == behind {
  print "///< " escaped(substr($0, behind + 3))
  next
}
/^[ \t]*\/\// {
  behind = 0
  if (!fresh) { shared = ""; fresh = 1; details = 0 }
  text = $0
  sub(/^[ \t]*\/\/ ?/, "", text)
  if (text ~ /^  returns +[^ ]/) {
    sub(/^  returns +/, "", text)
    details = 1
    print "/// @return " escaped(text)
  } else if (text ~ /^  threads +[^ ]/) {
    sub(/^  threads +/, "", text)
    details = 1
    print "/// @par Threads: " escaped(text)
  } else if (text ~ /^  [A-Za-z_][A-Za-z0-9_]*(, [A-Za-z_][A-Za-z0-9_]*)*  +[^ ]/) {
    names = text
    sub(/^  /, "", names)
    sub(/  +[^ ].*$/, "", names)
    gsub(/, /, ",", names)
    sub(/^  [^ ]+(, [^ ]+)*  +/, "", text)
    details = 1
    print "/// @param " names " " escaped(text)
  } else {
    if (!details) shared = shared (shared == "" ? "" : " ") text
    print "/// " escaped(text)
  }
  next
}
# Doxygen doesn't know the namespace of a specialisation.
/^struct std::/ { hidden = 1 }
hidden { print ""; if (/^\};/) hidden = 0; next }
{
  code = code_of($0)
  line = $0
  comment = index(line, "//")
  behind = 0
  starts = statement_over && depth == shared_depth
  if (fresh) { shared_depth = depth; statement_over = 1; starts = 0 }
  opens = count(code, "[{(]")
  closes = count(code, "[})]")
  label = code ~ /^[ \t]*(public|private|protected):/
  if (label || depth + opens - closes < shared_depth || code ~ /^#/) shared = ""
  own = ""
  if (comment > 0 && code ~ /^[ \t]*((class|struct|enum) .*\{|enum .*\};)$/) {  # what the type is
    line = "/** " escaped(substr(line, comment + 3)) " */ " substr(line, 1, comment - 1)
  } else if (comment > 0 && code !~ /^[ \t]*\}/ && code !~ /^#/ && code !~ /^[ \t]*$/ && code !~ /\{$/) {
    own = substr(line, comment + 3)
    line = substr(line, 1, comment - 1) "///< " escaped(own)
    behind = comment
  }
  name = code
  sub(/ *\(.*$/, "", name)
  sub(/^.*[^A-Za-z0-9_~]/, "", name)
  if (code !~ /\(/) name = ""
  if (starts && name != shared_name) shared = ""
  if (!starts && fresh) shared_name = name
  if (starts && shared != "" && own == "" && code !~ /^[ \t]*[})]/) line = "/** " escaped(shared) " */ " line
  print line
  depth += opens - closes
  statement_over = code ~ /[;}]$/ || code ~ /\{$/ || label
  if (code ~ /\{$/ && (code ~ /^(namespace|extern)/ )) depth -= 1  # a namespace is no block of its own
  fresh = 0
}
