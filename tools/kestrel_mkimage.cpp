// TEMPORARY stub.
int main() { return 1; }
