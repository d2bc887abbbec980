/* The cheapest interaction program: a compiled program that does nothing,
 * the floor of the interaction stage benchmark. */
int main(void) { return 0; }
