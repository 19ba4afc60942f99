// The program a worker library is linked into, whole and with nothing but its
// own dependencies: the link fails when the worker uses a symbol from a
// library it must not depend on.
int main() {
  return 0;
}
