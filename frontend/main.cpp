#include "frontend/driver.h"

int main(int argc, char* argv[])
{
    return DriverMain(argc, argv);
}
