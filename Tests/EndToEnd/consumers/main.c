#include <Skelda_Watch/skelda_watch.h>
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

/// A variable that is the library's function of that name: linked, or, with LIBRARY, loaded.
#ifdef LIBRARY
#define TAKE(variable, name)         \
  __typeof__(&name) variable = NULL; \
  memcpy(&variable, &(void*){dlsym(library, #name)}, sizeof variable)
#else
#define LIBRARY NULL
#define TAKE(variable, name) __typeof__(&name) variable = name
#endif

int main(void) {
  void* library = dlopen(LIBRARY, RTLD_NOW | RTLD_LOCAL);
  if (library == NULL) return puts(dlerror()), 2;
  TAKE(dictionary, skelda_dictionary_new);
  TAKE(putInteger, skelda_put_integer);
  TAKE(putText, skelda_put_text);
  TAKE(logEvent, skelda_log_event);
  TAKE(freeValue, skelda_value_free);
  TAKE(waitUntilStored, skelda_wait_until_stored);
  skelda_value* parameters = dictionary();
  if (!putInteger(parameters, "lap", 3) || !putText(parameters, "pace", "5:10")) return 1;
  if (!logEvent("LapDone", parameters) || !waitUntilStored(60000)) return 1;
  freeValue(parameters);
  // What works on in threads of its own stays, whoever lets it go.
  return dlclose(library) != 0 || dlopen(LIBRARY, RTLD_NOW | RTLD_NOLOAD) == NULL;
}
