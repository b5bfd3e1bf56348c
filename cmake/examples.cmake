# Tests that use the library as a host does: installed, from another project.
