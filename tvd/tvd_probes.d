/* Static tracing points of the daemon ("tvd" provider). */
provider tvd {
    probe client__new(int pid);
    probe client__done(int pid);
    probe request__input(int pid, char *text);
    probe request(int pid, char *type);
    probe request__output(int pid, char *text);
    probe plugin__add(char *path);
    probe plugin__remove(char *path, int resolved);
    probe plugin__ready(char *uuid);
    probe discover__raw(uint32_t count);
    probe db__load(char *domain, uint64_t code);
};
