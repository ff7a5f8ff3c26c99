#include "report.h"

int main(int argc, char* argv[]) {
    return run_calreport(argc, argv);
}
