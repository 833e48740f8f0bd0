/* The public headers are valid C11 on their own and together. */
#include "fim_config/qfm_fim_config.h"
#include "include/records.h"
#include "include/symapi.h"
#include "include/tessera_host.h"
#include "include/timefinder.h"
#include "snap/snap.h"

int headers_compile_as_c(void);
int headers_compile_as_c(void) {
    return (int)sizeof(hdef);
}
