/* Usage: download_one_file URL PATH: libcurl with its defaults, writing to one open file. */
#include <curl/curl.h>
#include <fcntl.h>
#include <unistd.h>

static size_t append(char* piece, size_t size, size_t count, void* file) {
  const ssize_t written = write(*(const int*)file, piece, size * count);
  return written < 0 ? 0 : (size_t)written;
}

int main(int argc, char* argv[]) {
  if (argc != 3) return 1;
  int file = open(argv[2], O_RDWR | O_APPEND | O_CREAT, 0666);
  CURL* curl = curl_easy_init();
  if (file < 0 || !curl) return 1;
  curl_easy_setopt(curl, CURLOPT_URL, argv[1]);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, append);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &file);
  curl_easy_setopt(curl, CURLOPT_IPRESOLVE, CURL_IPRESOLVE_V4);
  const CURLcode code = curl_easy_perform(curl);
  curl_easy_cleanup(curl);
  return code != CURLE_OK;
}
