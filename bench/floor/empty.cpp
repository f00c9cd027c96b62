// Nothing, linked to the same libraries as the worker: what starting and ending any such program
// costs.
int main()
{
    return 0;
}
