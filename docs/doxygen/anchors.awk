# Gives the headings of a page the anchors that repository viewers make up for them, and turns links to such
# anchors into references: `[text](#some-words)` and `[text](other.md#some-words)`. Anchors are unique among
# all pages by the name of their page.

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
fenced || /^    / { print; next }
/^##+ / {
  title = $0
  sub(/^#+ /, "", title)
  anchor = page "-" slug(title)
  if (uses[anchor]++) anchor = anchor "-" uses[anchor] - 1
  print $0 " {#" anchor "}"
  next
}
{
  line = $0
  gsub(/\]\(#/, "](#" page "-", line)
  while (match(line, /\]\([a-z-]+\.md#/)) {
    other = substr(line, RSTART + 2, RLENGTH - 6)
    line = substr(line, 1, RSTART - 1) "](#" other "-" substr(line, RSTART + RLENGTH)
  }
  print line
}
END { print "" }  # Doxygen stumbles over code that ends with the page
