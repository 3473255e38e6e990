# What the standalone host needs from the machine. The build includes this file, and so does the installed package
# when `find_package(scopeinfo COMPONENTS standalone)` asks for it.
include(CMakeFindDependencyMacro)
find_dependency(Threads)
find_dependency(fmt)
find_dependency(PkgConfig)
pkg_check_modules(SCOPEINFO_SQLITE REQUIRED IMPORTED_TARGET sqlite3)
pkg_check_modules(SCOPEINFO_GLIB REQUIRED IMPORTED_TARGET glib-2.0)
