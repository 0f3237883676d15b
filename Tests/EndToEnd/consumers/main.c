#include <Skelda_Watch/skelda_watch.h>
#include <dlfcn.h>
#include <stdio.h>

/// The library's function of that name: linked, or, with LIBRARY, loaded.
#ifdef LIBRARY
#define OF(name) (__extension__(__typeof__(&name)) dlsym(library, #name))
#else
#define LIBRARY NULL
#define OF(name) name
#endif

int main(void) {
  void* library = dlopen(LIBRARY, RTLD_NOW | RTLD_LOCAL);
  if (library == NULL) return puts(dlerror()), 2;
  skelda_value* parameters = OF(skelda_dictionary_new)();
  if (!OF(skelda_put_integer)(parameters, "lap", 3)) return 1;
  if (!OF(skelda_put_text)(parameters, "pace", "5:10")) return 1;
  if (!OF(skelda_log_event)("LapDone", parameters)) return 1;
  if (!OF(skelda_wait_until_stored)(60000)) return 1;
  OF(skelda_value_free)(parameters);
  // What works on in threads of its own stays, whoever lets it go.
  return dlclose(library) != 0 || dlopen(LIBRARY, RTLD_NOW | RTLD_NOLOAD) == NULL;
}
