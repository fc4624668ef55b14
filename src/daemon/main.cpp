int dypd_main(int argc, char **argv);

int main(int argc, char **argv) { return dypd_main(argc, argv); }
