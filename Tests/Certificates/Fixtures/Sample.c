/* The program the certificate fixtures sign: a plain console image built by
   the project's own compiler. It does nothing but exit. */
int main(void)
{
    return 0;
}
