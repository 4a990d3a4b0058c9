// STUB: replaced by the real entry point.
int main() { return 70; }
