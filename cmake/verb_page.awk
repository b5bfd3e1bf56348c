# Prints the manual page of one command, as `man zephlore-render` finds it, of what docs/zephlore.1 says of it; without
# -v verb=NAME the names of all commands. The parts: its lines of the synopsis, its items among the commands, the list
# behind "The options of", and for all the sections that hold for it.

function text_of(lines,    parts, count, i, text, line) {  # the first sentence, without macros
  count = split(lines, parts, "\n")
  for (i = 1; i <= count; i++) {
    line = parts[i]
    if (line ~ /^\.(Ar|Cm|Pa|Nm) /) line = substr(line, 5)
    else if (line ~ /^\./) continue
    gsub(/ ,/, ",", line)
    text = text (text == "" ? "" : " ") line
    if (line ~ /[.:]$/) break
  }
  gsub(/ \./, ".", text)
  sub(/[.:]$/, "", text)
  for (i = 25; i < length(text); i++)  # one clause is enough for a title
    if (substr(text, i, 1) ~ /[,:]/) text = substr(text, 1, i - 1)
  return tolower(substr(text, 1, 1)) substr(text, 2)
}

/^\.Sh / { section = substr($0, 5); depth = 0; item = ""; part = "" }
/^\.Dd / { date = $0 }
/^\.Nm$/ && section != "SYNOPSIS" { $0 = ".Nm zephlore" }
{ next_part = part }

section == "SYNOPSIS" && /^\.Nm$/ { block = ""; open = 1; next }
section == "SYNOPSIS" && /^\.Cm / && open {
  open = 0
  block = $2
  if (block == verb) synopsis = synopsis ".Nm zephlore\n"
}
section == "SYNOPSIS" && !/^\.Sh/ && block == verb { synopsis = synopsis $0 "\n" }

section == "DESCRIPTION" && /^The options of$/ { part = "head"; next }
section == "DESCRIPTION" && part == "head" && /^\.Cm / { part = "options"; owner = $2 }
section == "DESCRIPTION" && part == "options" && owner == verb {
  if (/^\.Bl/) { inside = 1 }
  if (inside) options = options $0 "\n"
  else intro = intro $0 "\n"
  if (/^\.El/) { inside = 0; part = "" }
  next
}
section == "DESCRIPTION" && /^\.It Cm / && part == "" {
  item = $3
  if (!(item in seen) && verb == "") print item
  seen[item] = 1
  if (item == verb) { items++; heads[items] = $0 }
  next
}
section == "DESCRIPTION" && /^\.El/ { item = "" }
section == "DESCRIPTION" && item == verb && item != "" { bodies[items] = bodies[items] $0 "\n" }

section == "SIGNALS" && verb == "render" { rest = rest $0 "\n" }
section == "ENVIRONMENT" && verb == "render" { rest = rest $0 "\n" }
section == "EXIT STATUS" { rest = rest $0 "\n" }

END {
  if (verb == "") exit
  print date "\n.Dt ZEPHLORE-" toupper(verb) " 1\n.Os\n.Sh NAME\n.Nm zephlore-" verb
  print ".Nd " (items == 1 ? text_of(bodies[1]) : "work on finished pictures")
  printf ".Sh SYNOPSIS\n%s.Sh DESCRIPTION\n", synopsis
  if (items == 1) printf "%s", bodies[1]
  else {
    print ".Bl -tag -width Ds"
    for (i = 1; i <= items; i++) printf "%s\n%s", heads[i], bodies[i]
    print ".El"
  }
  if (options != "") {
    if (intro ~ /are:\n$/ && intro !~ /those/) intro = "The options are:\n"
    else intro = "The options of\n" intro
    printf ".Pp\n%s%s", intro, options
  }
  printf "%s.Sh SEE ALSO\n.Xr zephlore 1\n", rest
}
