# Prepares a page for Doxygen. Headings get the anchors that repository viewers make up for them, and links to
# such anchors, `[text](#some-words)` and `[text](other.md#some-words)`, become references. Anchors are unique
# among all pages by the name of their page. Links whose text runs over two lines are joined.

function slug(text) {
  text = tolower(text)
  gsub(/[^a-z0-9 _-]/, "", text)
  gsub(/ /, "-", text)
  return text
}

FNR == 1 {
  page = FILENAME
  sub(/.*\//, "", page)
  sub(/\.md$/, "", page)
}
/^```/ { fenced = !fenced }
fenced || /^    / {
  if (held != "") print held
  held = ""
  print
  next
}
/^##+ / {
  title = $0
  sub(/^#+ /, "", title)
  anchor = page "-" slug(title)
  if (uses[anchor]++) anchor = anchor "-" uses[anchor] - 1
  print $0 " {#" anchor "}"
  next
}
{
  line = held $0
  held = ""
  if (line ~ /\[[^]`]*$/ && $0 != "") {
    held = line " "
    next
  }
  gsub(/\]\(#/, "](#" page "-", line)
  while (match(line, /\]\([a-z-]+\.md#/)) {
    other = substr(line, RSTART + 2, RLENGTH - 6)
    line = substr(line, 1, RSTART - 1) "](#" other "-" substr(line, RSTART + RLENGTH)
  }
  print line
}
END { if (held != "") print held }
