add_compile_options(-Wall -Wextra -Werror)
