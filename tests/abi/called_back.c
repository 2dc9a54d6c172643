/* A host in C that sets a callback and has to be called. Built position-independent and at a fixed address:
 * the second kind reaches the library's variable through a copy in the host itself. */
#include <stdio.h>
#include <string.h>

#include <libvu/libvu.h>

static char heard[64];

static int32_t onError(const char *text)
{
    snprintf(heard, sizeof heard, "%s", text);
    return 1;
}

int main(void)
{
    libvuErrorCallback = onError;
    pipeAddFrame(NULL, NULL);
    if (strcmp(heard, "Pipe list not given") != 0)
        return printf("the library did not see the host's callback\n"), 1;
    return 0;
}
