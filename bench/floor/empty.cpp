// An empty program that is linked to the same libraries as the worker: the cost of starting and
// ending such a program.
int main()
{
    return 0;
}
