// Linked against the whole of the module's library (every object of it, used or not) and against
// nothing else. That it links shows that the module needs nothing beyond the standard library;
// needed_libraries.sh looks at the outcome.
int main() { return 0; }
