#include "account_client.h"
