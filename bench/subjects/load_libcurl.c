/* What loading libcurl, and the libraries that it needs, costs: linked with it, calls nothing. */
int main(void) { return 0; }
