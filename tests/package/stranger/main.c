/* SPDX-License-Identifier: MIT */
/* A stranger's program, C99 and C++17 alike. */
#include <ox.h>
#include <stdio.h>

int main(void)
{
    float a[4] = {4, 0, 0, 2}, b[4] = {0, 0, 0, 0};
    ox_mat_t A, B;
    ox_mat_initheader(&A, 2, 2, OX_F32, a);
    ox_mat_initheader(&B, 2, 2, OX_F32, b);
    if (ox_mat_inv(&A, &B) != 0 || b[0] != 0.25f || b[3] != 0.5f) return 1;
    printf("ox %d.%d.%d\n", OX_VERSION_MAJOR, OX_VERSION_MINOR, OX_VERSION_PATCH);
    return 0;
}
