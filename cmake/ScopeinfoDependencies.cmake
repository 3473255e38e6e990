# The libraries of the machine that the standalone host needs. The build includes this file, and so does the installed
# package for `find_package(scopeinfo COMPONENTS standalone)`.
include(CMakeFindDependencyMacro)
find_dependency(Threads)
find_dependency(fmt)
find_dependency(PkgConfig)
pkg_check_modules(SCOPEINFO_SQLITE REQUIRED IMPORTED_TARGET sqlite3)
pkg_check_modules(SCOPEINFO_GLIB REQUIRED IMPORTED_TARGET glib-2.0)
