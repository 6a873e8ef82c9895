// A program that uses the companion alone.
#include <orv/safe.h>

#include <iostream>

int main()
{
    std::cout << orv_safe::SafeCell("<") << " " << orv_safe::MakeDirectory("/proc/orv-outside", 0755) << std::endl;
}
