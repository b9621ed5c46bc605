// The functions of libcurl that the programs call, for the linker alone: see cmake/PortableLink.cmake.
// Without its function here a call does not link. packaging/deb/libcurl4.symbols lists the same.
extern "C" {

void curl_easy_cleanup();
void curl_easy_getinfo();
void curl_easy_init();
void curl_easy_perform();
void curl_easy_setopt();
void curl_easy_strerror();

void curl_easy_cleanup() {}
void curl_easy_getinfo() {}
void curl_easy_init() {}
void curl_easy_perform() {}
void curl_easy_setopt() {}
void curl_easy_strerror() {}
}
