// The functions of libcurl that the programs call, for the linker alone: see cmake/PortableLink.cmake.
// A call that is missing here fails to link.
extern "C" {

void curl_easy_cleanup();
void curl_easy_init();
void curl_easy_perform();
void curl_easy_setopt();

void curl_easy_cleanup() {}
void curl_easy_init() {}
void curl_easy_perform() {}
void curl_easy_setopt() {}
}
