/* Measures loading libcurl and the libraries that it needs: linked with it, calls nothing. */
int main(void) { return 0; }
