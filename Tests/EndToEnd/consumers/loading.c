#include <Skelda_Watch/skelda_watch.h>
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

/// The function of that name in the library, at `place`.
static void take(void* library, const char* name, void* place) {
  void* found = dlsym(library, name);
  memcpy(place, &found, sizeof found);
}

int main(void) {
  void* library = dlopen(LIBRARY, RTLD_NOW | RTLD_LOCAL);
  if (library == NULL) return puts(dlerror()), 2;
  skelda_value* (*dictionary)(void);
  bool (*putInteger)(skelda_value*, const char*, int64_t);
  bool (*putText)(skelda_value*, const char*, const char*);
  bool (*logEvent)(const char*, const skelda_value*);
  bool (*waitUntilStored)(int64_t);
  take(library, "skelda_dictionary_new", &dictionary);
  take(library, "skelda_put_integer", &putInteger);
  take(library, "skelda_put_text", &putText);
  take(library, "skelda_log_event", &logEvent);
  take(library, "skelda_wait_until_stored", &waitUntilStored);
  skelda_value* parameters = dictionary();
  if (!putInteger(parameters, "lap", 3) || !putText(parameters, "pace", "5:10")) return 1;
  if (!logEvent("LapDone", parameters) || !waitUntilStored(60000)) return 1;
  // What works on in threads of its own stays, whoever lets it go.
  return dlclose(library);
}
