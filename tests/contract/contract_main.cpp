// Nothing to run: that this program links is the check.
int main() { return 0; }
