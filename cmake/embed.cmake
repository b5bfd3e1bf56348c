# Run as a script: -DOUT=file.cpp "-DFILES=a.html;b.css". Writes a source file that holds the files, each as one
# row of the table that app/serve_files.h declares.
set(rows "")
foreach(file IN LISTS FILES)
  get_filename_component(name "${file}" NAME)
  file(READ "${file}" text)
  string(APPEND rows "    {\"${name}\", R\"embedded(${text})embedded\"},\n")
endforeach()
file(WRITE "${OUT}" "#include \"serve_files.h\"\n\nnamespace zp {\n\nconst std::vector<ServeFile> serveFiles = {\n${rows}};\n\n}  // namespace zp\n")
