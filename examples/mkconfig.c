/*
 * Writes the configuration of a new installation: mkconfig PATH.
 *
 * kisam_config_write sizes the shared area from the settings (here: a small one, 16
 * files, 64 page buffers, 16 processes) and writes the configuration record with its
 * lock file, PATH.lk.  Every program of the installation then finds PATH through
 * KISCONFIG (or as kisamconfig under etc_dir or $HOME_Q9).
 */
#include <kisam/kisam.h>

#include <errno.h>
#include <stdio.h>
#include <string.h>

int main(int argc, char **argv) {
    struct kisam_settings s = KISAM_SETTINGS_DEFAULT;

    if (argc != 2) {
        fprintf(stderr, "usage: mkconfig PATH\n");
        return 2;
    }
    s.files = 16;
    s.buffers = 64;
    s.users = 16;
    s.locks_per_file = 16;
    if (kisam_config_write(argv[1], &s, 0, 0) != 0) {
        fprintf(stderr, "mkconfig: %s: %s\n", argv[1], strerror(errno));
        return 1;
    }
    return 0;
}
