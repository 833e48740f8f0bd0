#include "fim_config/qfm_fim_config.h"
