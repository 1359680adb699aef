/* The System V alarm word of the gateway: a 4-byte shared-memory segment
 * with the key ftok("/tmp", 955000).
 *
 *   zqlab-alarm set VALUE     create the segment if needed and store VALUE
 *                             (decimal, or hexadecimal with 0x)
 *   zqlab-alarm get           print the word in decimal */
#include "common.h"

#include <stdint.h>
#include <sys/ipc.h>
#include <sys/shm.h>

int main(int argc, char **argv) {
    if (argc < 2 || (strcmp(argv[1], "set") == 0 && argc < 3)) {
        fprintf(stderr, "usage: zqlab-alarm set VALUE | get\n");
        return 2;
    }
    key_t key = ftok("/tmp", 955000);
    if (key == -1) {
        perror("zqlab-alarm: ftok");
        return 1;
    }
    int id = shmget(key, 4, IPC_CREAT | 0666);
    if (id == -1) {
        perror("zqlab-alarm: shmget");
        return 1;
    }
    volatile uint32_t *word = shmat(id, NULL, 0);
    if (word == (void *)-1) {
        perror("zqlab-alarm: shmat");
        return 1;
    }
    if (strcmp(argv[1], "set") == 0) {
        char *end;
        unsigned long v = strtoul(argv[2], &end, 0);
        if (*argv[2] == '\0' || *end != '\0') {
            fprintf(stderr, "zqlab-alarm: not a number: %s\n", argv[2]);
            return 2;
        }
        *word = (uint32_t)v;
    } else {
        printf("%u\n", (unsigned)*word);
    }
    shmdt((const void *)word);
    return 0;
}
