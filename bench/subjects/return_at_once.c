/* Measures starting and ending a process. */
int main(void) { return 0; }
