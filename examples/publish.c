/*
 * publish.c: publish one extract with libOrvaneServer.
 *
 *   cc publish.c $(pkg-config --cflags --libs orvane-server) -o publish
 *   ORVANE_PASSWORD=secret ./publish http://127.0.0.1:8080 alice "" Samples sales.qrx sales
 *
 * The library speaks UTF-16; this example converts its ASCII arguments the
 * simple way. Real programs convert UTF-8 properly (see tools/orvane-publish).
 */
#include <orvane/OrvaneServer.h>

#include <locale.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* ASCII to a freshly allocated UTF-16 string. */
static unsigned short* utf16(const char* text)
{
    size_t n = strlen(text);
    unsigned short* out = malloc((n + 1) * sizeof *out);
    if (out == NULL) {
        perror("malloc");
        exit(1);
    }
    for (size_t i = 0; i <= n; ++i)
        out[i] = (unsigned char)text[i];
    return out;
}

static int report(const char* step, ORV_RESULT rc)
{
    if (rc != ORV_RESULT_Success)
        fprintf(stderr, "%s failed (code %d): %ls\n", step, (int)rc, OrvGetLastErrorMessage());
    return rc != ORV_RESULT_Success;
}

int main(int argc, char** argv)
{
    setlocale(LC_ALL, ""); /* so %ls prints non-ASCII error text */
    if (argc != 7) {
        fprintf(stderr, "usage: %s SERVER USER SITE PROJECT FILE.qrx NAME   (password in $ORVANE_PASSWORD)\n", argv[0]);
        return 2;
    }
    const char* password = getenv("ORVANE_PASSWORD");
    if (password == NULL) {
        fprintf(stderr, "set ORVANE_PASSWORD\n");
        return 2;
    }
    unsigned short *server = utf16(argv[1]), *user = utf16(argv[2]), *site = utf16(argv[3]);
    unsigned short *project = utf16(argv[4]), *file = utf16(argv[5]), *name = utf16(argv[6]);
    unsigned short* secret = utf16(password);

    int failed = report("initialize", OrvServerAPIInitialize());
    void* connection = NULL;
    if (!failed)
        failed = report("create", OrvServerConnectionCreate(&connection));
    if (!failed)
        failed = report("connect", OrvServerConnectionConnect(connection, server, user, secret, site));
    if (!failed)
        failed = report("publish", OrvServerConnectionPublishExtract(connection, file, project, name, 1));
    if (connection != NULL) {
        OrvServerConnectionDisconnect(connection);
        OrvServerConnectionClose(connection);
    }
    OrvServerAPICleanup();
    if (!failed)
        printf("published %s as \"%s\" in project \"%s\"\n", argv[5], argv[6], argv[4]);

    free(server), free(user), free(site), free(project), free(file), free(name), free(secret);
    return failed;
}
