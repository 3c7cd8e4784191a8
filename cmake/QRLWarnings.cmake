# Warnings every target of the project builds with. Floating-point contraction
# is switched off everywhere: the frame timing keeps single-precision steps
# that a fused multiply-add would change, and no target may use -ffast-math
# (NaN marks empty slots in the averages).
function(qrl_target_defaults target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wshadow=local -Wnon-virtual-dtor
                         -Wno-missing-field-initializers -ffp-contract=off -fno-fast-math)
endfunction()
