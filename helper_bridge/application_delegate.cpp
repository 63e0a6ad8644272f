#include "application_delegate.h"

#include "helper_connection.h"
